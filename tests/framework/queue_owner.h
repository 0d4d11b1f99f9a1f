#pragma once

#include "tests/framework/child_process.h"
#include "tests/support/quiet_proc.h"

/// Another process that owns a queue and takes nothing from it. It has it when the constructor
/// returns. Make it before the test starts threads or opens a queue.
class QueueOwner {
public:
    explicit QueueOwner(long address)
        : child_([this, address] {
              {
                  const QuietProc proc(address);
                  opened_.pass();
                  (void)close_.await();
              }
              (void)end_.await();
              return 0;
          })
    {
        if (!opened_.await()) throw std::runtime_error("the other process has no queue");
    }

    /// It closes its queue, sooner or later, and lives on.
    void closeQueue() { close_.pass(); }

    /// Ends it without giving it a chance to close its queue.
    void kill() { child_.kill(); }

    /// Lets it end, after closeQueue().
    /// @return what ChildProcess::result() returns: 0
    int end()
    {
        end_.pass();
        return child_.result();
    }

private:
    Signpost opened_;
    Signpost close_;
    Signpost end_;
    ChildProcess child_;
};
