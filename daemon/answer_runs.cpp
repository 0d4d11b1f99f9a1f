#include "daemon/answer_runs.h"

#include <algorithm>

#include "common/live_list.h"
#include "common/wake_up.h"
#include "connections/local_conn.h"
#include "connections/witness.h"

namespace {

std::uint32_t askerOf(const TOrbAttachmentMsg* answer)
{
    return answer->tag & 0xFFFF'0000U;
}

/// @return the first connection of that ID; null: it is gone
TPortConn* find(std::vector<TPortConn*>& conns, std::uint32_t connId)
{
    for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i); ++i)
        if (conn->connId == connId) return conn;
    return nullptr;
}

void tell(const TPortConn* conn, std::span<TOrbAttachmentMsg* const> answers)
{
    for (const TOrbAttachmentMsg* const answer : answers) {
        if (conn != nullptr)
            witness::answered(*conn, *answer);
        else
            witness::dropped(*answer);
    }
}

void writeRun(TPortConn& conn, std::span<TOrbAttachmentMsg* const> answers)
{
    if (conn.local != nullptr) return conn.local->writeTogether(answers);
    for (TOrbAttachmentMsg* const answer : answers)
        (void)conn.write(answer); // it has logged a failure; the service thread finds out that it is gone
    if (conn.output != nullptr) g_wakeUp.wake();
}

} // namespace

AnswerRuns::AnswerRuns(std::span<TOrbAttachmentMsg* const> answers, std::vector<TPortConn*>& conns)
    : answers_(answers), output_(LocalConn::outputLock)
{
    while (!answers.empty()) {
        const std::uint32_t asker = askerOf(answers.front());
        const auto end =
            std::ranges::find_if(answers, [asker](const auto* answer) { return askerOf(answer) != asker; });
        const auto length = static_cast<std::size_t>(end - answers.begin());
        TPortConn* const conn = find(conns, asker);
        runs_[count_++] = {conn, length};
        tell(conn, answers.first(length));
        answers = answers.subspan(length);
    }
}

bool AnswerRuns::areLocal() const
{
    return std::ranges::all_of(runs(),
                               [](const Run& run) { return run.conn == nullptr || run.conn->local != nullptr; });
}

void AnswerRuns::write()
{
    auto left = answers_;
    for (const Run& run : runs()) {
        if (run.conn != nullptr) writeRun(*run.conn, left.first(run.length));
        left = left.subspan(run.length);
    }
}
