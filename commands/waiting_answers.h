#pragma once

#include <list>
#include <vector>

#include "commands/full_queues.h"

/// Answers of the message loop to processes whose queue is full: they wait as commands do, in
/// order.
/// Threads: no lock of its own; under the daemon's registry lock.
class WaitingAnswers {
public:
    /// Chosen, not measured. One more answer is lost, as an answer to a stuck queue is.
    static constexpr std::size_t MAX_ANSWERS = 64;

    explicit WaitingAnswers(FullQueues& fullQueues) : fullQueues_(fullQueues) {}

    /// Sends an answer, or keeps a copy that is sent when its queue has room. Allocates only for
    /// what is kept.
    /// @param length  bytes of `msg`
    /// @return true: it is kept, and the service loop is to be woken. false: sent, or lost, because
    ///         the process cannot be reached, its queue is stuck, MAX_ANSWERS are kept already, or
    ///         there is no memory
    bool send(long address, TOrbAttachmentMsg& msg, long length) noexcept;

    /// Sends what may be sent now.
    void goOn(const WaitSet& waits);

private:
    struct Answer {
        long address;
        std::vector<char> record;
        QueueWaiter waiter;
    };

    bool isDone(Answer& answer, const WaitSet& waits) noexcept;

    FullQueues& fullQueues_;
    std::list<Answer> answers_;
};
