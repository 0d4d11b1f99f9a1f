#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/tess-mqtt/fence.h"
#include "tools/tess-mqtt/reply.h"
#include "tools/tess-mqtt/request.h"
#include "tools/tess-mqtt/xcp_frame.h"
#include "tools/tessctl/answer_reader.h"

/// Carries requests out over one connection to /tmp/xcp, and finds out which answer belongs to
/// which.
///
/// Each request has a tag of its own, and a process's answer carries it. An answer that tessd gives
/// by itself does not; so a line goes out only when the fence behind the one before it has come
/// back, and what tessd has said by itself in between is that line's. Requests for processes that
/// take their time do not hold up others: the fence comes back as soon as a line is forwarded.
/// Threads: one. The functions that it is given must not call it.
class CommandRunner {
public:
    using Send = std::function<void(const std::string& bytes)>;
    /// A request is over.
    /// @param begun  it went to tessd; otherwise it was not carried out
    using Done = std::function<void(const Request&, const Reply&, bool begun)>;

    struct Limits {
        std::size_t most = 32;                   ///< requests at a time
        std::chrono::milliseconds timeout{5000}; ///< for the answers to one
    };

    /// A connection is to be given up from then on when it is at rest, as answers find it by an ID
    /// that others get after many connections; and is not given new lines from LATEST_RENEWAL on.
    /// Earlier when every tag is that of a request whose answer may still come.
    static constexpr std::chrono::minutes RENEWAL{10};
    static constexpr std::chrono::minutes LATEST_RENEWAL{15};
    /// tessd has not answered a fence for so long.
    static constexpr std::chrono::seconds STUCK{60};

    CommandRunner(Limits limits, Send send, Done done);

    /// Takes a request in; it may be done when this returns.
    void take(Request request, Instant now);

    /// The connection is there.
    void onUp(Instant now);

    /// The connection is gone. What was sent over it is over; what was not waits, if `isBack` says
    /// that another one is being made, or is refused.
    void onDown(Instant now, bool isBack);

    void onFrame(const XcpFrame& frame, Instant now);

    /// To be called when it is due().
    void onTime(Instant now);
    Instant due() const;

    /// Whether the connection is to be closed and made anew, before anything else is sent.
    bool wantsNewConnection(Instant now) const;

    std::size_t inFlight() const { return waiting_.size() + running_.size(); }

    /// Answers for nobody: late ones, and those for other connections.
    std::uint64_t strays() const { return strays_; }

private:
    struct Running {
        Request request;
        Instant deadline;
        std::size_t due; ///< answers
        AnswerReader reader{};
        Instant pauseEnd = NEVER; ///< when an answer without an end is over
        std::vector<Answer> answers{};
    };
    struct Held {
        bool isOwn; ///< of tessd itself
        std::string text;
    };
    using Runs = std::map<std::uint16_t, Running>;

    void pump(Instant now);
    void drop(const Request& request, ReplyStatus status, const std::string& why);
    void start(Request request, Instant now);
    std::uint16_t freeTag();
    bool hasFreeTag() const;
    void onOwnAnswer(const XcpFrame& frame, Instant now);
    void release(std::size_t own, Instant now);
    void feed(Runs::iterator run, const std::string& text, Instant now);
    void take(Runs::iterator run, AnswerReader::Progress progress);
    void finish(Runs::iterator run, ReplyStatus status, const std::string& lastLine);
    void checkWaiting(Instant now);
    void checkRunning(Instant now);

    Limits limits_;
    Send send_;
    Done done_;
    bool up_ = false;
    Instant upSince_{};
    std::deque<Request> waiting_;
    Runs running_;
    std::set<std::uint16_t> abandoned_; ///< tags whose answers may still come
    std::uint16_t lastTag_ = 0;
    std::optional<Fence> fence_; ///< that has not come back
    std::uint16_t fenced_ = 0;   ///< tag of the line in front of it
    std::vector<Held> held_;     ///< answers to that line, and the fence's, in the order in which they came
    Instant fenceSince_ = NEVER;
    std::uint64_t strays_ = 0;
};
