#include "commands/re_init.h"

#include <atomic>
#include <new>

#include "common/own_thread.h"
#include "framework/version_re_init.h"

namespace {

/// When an asker has gone, asker_ points here: somebody has asked, but nobody waits any longer.
const char forgotten = 0;

} // namespace

struct ReInit::Run {
    std::atomic<bool> over{false};
    int result = 1;
};

bool ReInit::start(const void* asker) noexcept
try {
    const std::scoped_lock lock(lock_);
    if (asker_ != nullptr || cancelled_) return false;
    const auto run = std::make_shared<Run>();
    const bool started = startOwnThread([run, onOver = onOver_] {
        run->result = versionReInit();
        run->over = true;
        onOver();
    });
    if (!started) return false;
    run_ = run;
    isLost_ = false;
    asker_ = asker;
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

bool ReInit::isAskedBy(const void* asker) const
{
    const std::scoped_lock lock(lock_);
    return asker_ == asker;
}

bool ReInit::endedLocked() const
{
    return (isLost_ || run_->over) && !cancelled_;
}

bool ReInit::isOver(const void* asker) const
{
    const std::scoped_lock lock(lock_);
    return asker_ != asker || endedLocked();
}

bool ReInit::takeResultLocked()
{
    const bool endedWell = !isLost_ && run_->result == 0;
    asker_ = nullptr;
    run_ = nullptr;
    return endedWell;
}

bool ReInit::takeResult()
{
    const std::scoped_lock lock(lock_);
    return takeResultLocked();
}

void ReInit::forget(const void* asker)
{
    const std::scoped_lock lock(lock_);
    if (asker_ == asker) asker_ = &forgotten;
}

bool ReInit::takeForgotten()
{
    const std::scoped_lock lock(lock_);
    return asker_ == &forgotten && endedLocked() && takeResultLocked();
}

void ReInit::cancel()
{
    const std::scoped_lock lock(lock_);
    cancelled_ = true;
}

void ReInit::startInCopy()
{
    std::construct_at(&lock_);
    isLost_ = true;
}
