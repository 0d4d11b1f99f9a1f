#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <span>
#include <vector>

#include "connections/port_conn.h"
#include "daemon/answer_box.h"

/// Answers of processes that are about to be written, and the connections that asked.
class AnswerRuns {
public:
    /// Finds the connections, tells what becomes of the answers (witness.h), and keeps local ones
    /// from being written to or removed by anybody else until its end. With the connections locked.
    /// @param answers  in order; what stands in them is not looked at again when they are written
    AnswerRuns(std::span<TOrbAttachmentMsg* const> answers, std::vector<TPortConn*>& conns);
    AnswerRuns(const AnswerRuns&) = delete;
    AnswerRuns& operator=(const AnswerRuns&) = delete;

    /// @return true when write() does not need the connections locked
    bool areLocal() const;

    /// Writes them in order; those in a row for the same connection together. An answer whose
    /// connection is gone is dropped.
    void write();

private:
    struct Run {
        TPortConn* conn; ///< null: it is gone
        std::size_t length;
    };
    std::span<const Run> runs() const { return std::span(runs_).first(count_); }

    std::span<TOrbAttachmentMsg* const> answers_;
    std::array<Run, AnswerBox::MOST_ANSWERS> runs_; // only the first `count_` say anything
    std::size_t count_ = 0;
    std::unique_lock<std::mutex> output_;
};
