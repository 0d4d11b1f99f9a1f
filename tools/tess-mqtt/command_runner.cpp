#include "tools/tess-mqtt/command_runner.h"

#include <algorithm>
#include <utility>

#include "framework/tess_messages.h"
#include "tools/tessctl/command_line.h"

namespace {

constexpr std::chrono::milliseconds PAUSE{200}; // ends an answer that has neither an empty line nor a "?"
constexpr std::uint16_t FENCE_TAG = 0;          // as that of clients that have none: no request gets it
constexpr const char* EXPIRED = "it has expired, and was not carried out";
constexpr const char* AWAY = "tessd is not there";

std::string secondsText(std::chrono::milliseconds time)
{
    return std::to_string(time.count() / 1000) + " s";
}

/// The texts of answers, one below the other.
std::string joined(const std::vector<Answer>& answers)
{
    std::string text;
    for (const Answer& answer : answers)
        text.append(text.empty() ? "" : "\n").append(answer.text);
    return text;
}

} // namespace

CommandRunner::CommandRunner(Limits limits, Send send, Done done)
    : limits_(limits), send_(std::move(send)), done_(std::move(done))
{
}

/// A request that did not go to tessd.
void CommandRunner::drop(const Request& request, ReplyStatus status, const std::string& why)
{
    done_(request, {status, "Error: " + why}, false);
}

void CommandRunner::take(Request request, Instant now)
{
    if (request.expires <= now) return drop(request, ReplyStatus::timeout, EXPIRED);
    if (!up_) return drop(request, ReplyStatus::refused, AWAY);
    if (inFlight() >= limits_.most)
        return drop(request, ReplyStatus::busy, "too many commands are under way: try again");
    waiting_.push_back(std::move(request));
    pump(now);
}

bool CommandRunner::wantsNewConnection(Instant now) const
{
    if (!up_) return false;
    if (fence_ && now - fenceSince_ >= STUCK) return true;
    const bool isOld = now - upSince_ >= RENEWAL || !hasFreeTag();
    return !waiting_.empty() && running_.empty() && !fence_ && isOld;
}

bool CommandRunner::hasFreeTag() const
{
    return running_.size() + abandoned_.size() < UINT16_MAX; // one is the fence's
}

void CommandRunner::pump(Instant now)
{
    while (up_ && !fence_ && !waiting_.empty()) {
        const bool isToBeRenewed = wantsNewConnection(now) || now - upSince_ >= LATEST_RENEWAL;
        if (isToBeRenewed || !hasFreeTag()) return;
        Request request = std::move(waiting_.front());
        waiting_.pop_front();
        if (request.expires <= now)
            drop(request, ReplyStatus::timeout, EXPIRED);
        else
            start(std::move(request), now);
    }
}

std::uint16_t CommandRunner::freeTag()
{
    do {
        ++lastTag_;
    } while (lastTag_ == FENCE_TAG || running_.contains(lastTag_) || abandoned_.contains(lastTag_));
    return lastTag_;
}

void CommandRunner::start(Request request, Instant now)
{
    const std::uint16_t tag = freeTag();
    fence_.emplace(request.line);
    fenced_ = tag;
    fenceSince_ = now;
    const std::string bytes = frameBytes(tag, request.line) + frameBytes(FENCE_TAG, fence_->line());
    const std::size_t due = answersDue(request.line);
    running_.emplace(tag, Running{.request = std::move(request), .deadline = now + limits_.timeout, .due = due});
    send_(bytes);
}

void CommandRunner::onUp(Instant now)
{
    up_ = true;
    upSince_ = now;
    pump(now);
}

void CommandRunner::onDown(Instant now, bool isBack)
{
    up_ = false;
    release(0, now);
    fence_.reset();
    while (!running_.empty())
        finish(running_.begin(), ReplyStatus::timeout,
               "Error: the connection to tessd has ended before the answer: it may have been carried out or not");
    abandoned_.clear(); // their answers are for a connection that is gone
    while (!isBack && !waiting_.empty()) {
        const Request request = std::move(waiting_.front());
        waiting_.pop_front();
        drop(request, ReplyStatus::refused, AWAY);
    }
    checkWaiting(now);
}

void CommandRunner::onFrame(const XcpFrame& frame, Instant now)
{
    if (frame.kind != MSG_REPLY) return onOwnAnswer(frame, now);
    const auto run = running_.find(static_cast<std::uint16_t>(frame.tag));
    if (run == running_.end())
        ++strays_;
    else if (fence_ && run->first == fenced_ && run->second.due > 1)
        held_.push_back({false, frame.text});
    else
        feed(run, frame.text, now);
}

void CommandRunner::onOwnAnswer(const XcpFrame& frame, Instant now)
{
    if (!fence_) {
        ++strays_;
        return;
    }
    held_.push_back({true, frame.text});
    if (!fence_->take(frame.text)) return;
    const std::size_t own = fence_->before();
    fence_.reset();
    release(own, now);
    pump(now);
}

/// @param own  so many of tessd's own answers are the line's, and not the fence's
void CommandRunner::release(std::size_t own, Instant now)
{
    for (const auto& [isOwn, text] : std::exchange(held_, {})) {
        if (isOwn && own == 0) continue;
        if (isOwn) --own;
        if (const auto run = running_.find(fenced_); run != running_.end()) feed(run, text, now);
    }
}

void CommandRunner::feed(Runs::iterator run, const std::string& text, Instant now)
{
    run->second.pauseEnd = now + PAUSE;
    take(run, run->second.reader.take(text));
}

void CommandRunner::take(Runs::iterator run, AnswerReader::Progress progress)
{
    Running& running = run->second;
    std::ranges::move(progress.answers, std::back_inserter(running.answers));
    if (!running.reader.insideAnswer()) running.pauseEnd = NEVER;
    if (running.answers.size() < running.due) return;
    const bool hasFailed = std::ranges::any_of(running.answers, &Answer::failed);
    finish(run, hasFailed ? ReplyStatus::refused : ReplyStatus::answered, "");
}

/// @param lastLine  behind the answers that have come, where it has anything to say
void CommandRunner::finish(Runs::iterator run, ReplyStatus status, const std::string& lastLine)
{
    const Running over = std::move(run->second);
    if (status == ReplyStatus::timeout) abandoned_.insert(run->first);
    running_.erase(run);
    std::string text = joined(over.answers);
    if (!lastLine.empty()) text.append(text.empty() ? "" : "\n").append(lastLine);
    done_(over.request, {status, std::move(text)}, true);
}

void CommandRunner::onTime(Instant now)
{
    const auto fenced = fence_ ? running_.find(fenced_) : running_.end();
    if (fenced != running_.end() && fenced->second.deadline <= now) release(0, now);
    checkRunning(now);
    checkWaiting(now);
    pump(now);
}

void CommandRunner::checkRunning(Instant now)
{
    for (auto run = running_.begin(); run != running_.end();) {
        const auto next = std::next(run);
        if (run->second.pauseEnd <= now)
            take(run, run->second.reader.takePause());
        else if (run->second.deadline <= now)
            finish(run, ReplyStatus::timeout,
                   "Error: no answer within " + secondsText(limits_.timeout) +
                       ": it may have been carried out, or may still be");
        run = next;
    }
}

/// Those that could not be begun in all the time that they had.
void CommandRunner::checkWaiting(Instant now)
{
    while (!waiting_.empty() && waiting_.front().arrived + limits_.timeout <= now) {
        const Request request = std::move(waiting_.front());
        waiting_.pop_front();
        drop(request, ReplyStatus::busy, "tessd has not come to it within " + secondsText(limits_.timeout));
    }
}

Instant CommandRunner::due() const
{
    Instant due = waiting_.empty() ? NEVER : waiting_.front().arrived + limits_.timeout;
    for (const auto& [tag, running] : running_)
        due = std::min({due, running.deadline, running.pauseEnd});
    if (fence_) due = std::min(due, fenceSince_ + STUCK);
    return due;
}
