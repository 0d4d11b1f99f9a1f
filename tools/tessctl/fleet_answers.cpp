#include "tools/tessctl/fleet_answers.h"

#include <utility>

namespace {

const char* statusOf(const DeviceState& state)
{
    if (!state.isKnown) return "unknown";
    return state.online ? "no answer" : "offline";
}

} // namespace

FleetAnswers::FleetAnswers(const std::vector<DeviceState>& states)
{
    for (const DeviceState& state : states) {
        rows_[state.device] = {.device = state.device, .status = statusOf(state), .ms = {}, .text = {}};
        if (state.online) missing_.insert(state.device);
    }
    expected_ = missing_.size();
}

void FleetAnswers::take(FleetAnswer answer)
{
    if (answer.device.empty()) return;
    missing_.erase(answer.device);
    FleetAnswer& row = rows_[answer.device];
    const bool isDone = row.status == "answered" || row.status == "refused";
    if (isDone && answer.status == "timeout") return;
    row = std::move(answer);
}

std::vector<FleetAnswer> FleetAnswers::rows() const
{
    std::vector<FleetAnswer> rows;
    for (const auto& [device, row] : rows_)
        rows.push_back(row);
    return rows;
}
