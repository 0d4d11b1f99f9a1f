#include "tools/tessctl/line_report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

std::string jsonText(const LineReport& report)
{
    nlohmann::ordered_json object{{"line", report.line}, {"answers", nlohmann::ordered_json::array()}};
    for (const Answer& answer : report.answers)
        object["answers"].push_back(answer.text);
    object["refused"] = std::ranges::any_of(report.answers, &Answer::failed);
    object["milliseconds"] = static_cast<double>(report.took.count()) / 1000;
    if (!report.time.empty()) object["time"] = report.time;
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}
