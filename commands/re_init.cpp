#include "commands/re_init.h"

#include <atomic>
#include <new>

#include "common/own_thread.h"
#include "framework/version_re_init.h"

namespace {

const char forgotten = 0; ///< its address is the asker in place of one that is gone

} // namespace

struct TReInit::Run {
    std::atomic<bool> over{false};
    int result = 1;
};

bool TReInit::start(const void* asker) noexcept
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

bool TReInit::isAskedBy(const void* asker) const
{
    const std::scoped_lock lock(lock_);
    return asker_ == asker;
}

bool TReInit::endedLocked() const
{
    return (isLost_ || run_->over) && !cancelled_;
}

bool TReInit::isOver(const void* asker) const
{
    const std::scoped_lock lock(lock_);
    return asker_ != asker || endedLocked();
}

bool TReInit::takeResultLocked()
{
    const bool endedWell = !isLost_ && run_->result == 0;
    asker_ = nullptr;
    run_ = nullptr;
    return endedWell;
}

bool TReInit::takeResult()
{
    const std::scoped_lock lock(lock_);
    return takeResultLocked();
}

void TReInit::forget(const void* asker)
{
    const std::scoped_lock lock(lock_);
    if (asker_ == asker) asker_ = &forgotten;
}

bool TReInit::takeForgotten()
{
    const std::scoped_lock lock(lock_);
    return asker_ == &forgotten && endedLocked() && takeResultLocked();
}

void TReInit::cancel()
{
    const std::scoped_lock lock(lock_);
    cancelled_ = true;
}

void TReInit::startInCopy()
{
    std::construct_at(&lock_);
    isLost_ = true;
}
