#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/instant.h"
#include "framework/fd.h"

/// What is on its way out of a serial line, in order: sent as the line takes it, without ever
/// waiting for the line. Allocates only for what the line has not taken at once. Owns: the
/// descriptor of reported texts, while something of one is kept.
/// Threads: no lock of its own; under the daemon's connection lock.
class LineOutput {
public:
    /// Most bytes that are kept; a text that would not fit whole is not begun.
    static constexpr std::size_t CAPACITY = 65536;
    /// A reported text has failed when the line has taken nothing for so long.
    static constexpr std::chrono::seconds PATIENCE{2};
    /// The pause before another attempt on a line that has reported room and then taken nothing.
    static constexpr std::chrono::milliseconds RETRY_TIME{50};

    /// What has become of a text.
    enum class Sent {
        whole,   ///< the line has taken it, or it is empty
        kept,    ///< it, or its end, goes out as the line takes it
        refused, ///< too little room: nothing of it was begun, and that was logged; or the line is gone
    };

    /// Who wants to hear what has become of a text, in the caller's own terms.
    struct Ticket {
        std::int32_t asker;
        std::uint32_t tag;
    };

    struct Report {
        Ticket ticket;
        bool written;
    };

    LineOutput() = default;
    LineOutput(const LineOutput&) = delete;
    LineOutput& operator=(const LineOutput&) = delete;

    /// Sends as much as the line takes now, and keeps the rest for goOn(); nobody hears of its end.
    /// @param line  the serial line, non-blocking; stays the caller's, for as long as something of
    ///              the text is kept. Negative: refused
    Sent write(int line, std::string_view text);

    /// Sends a text and reports, when it was kept, what has become of it: written once the line has
    /// taken all of it; not written when the line has taken nothing for PATIENCE or is gone, and
    /// then the rest of it is dropped.
    /// @param line  the serial line, opened for this text, non-blocking; of those that are kept
    ///              only the first stays open, and serves the texts behind it too. None: refused
    Sent writeReported(Fd line, std::string_view text, const Ticket& ticket);

    /// Goes on sending, and drops what has failed. To be called when waitsFor() has room, or when
    /// due() has come.
    void goOn(Instant now);

    /// @return the descriptor whose room is waited for; -1 when none is: nothing is kept, or only
    ///         due() is waited for
    int waitsFor() const;

    /// @return when goOn() is to be called though there is no room: when the oldest reported text
    ///         fails, or after a pause; NEVER when there is neither
    Instant due() const;

    /// Ends all that is kept; what was to be reported is reported as not written.
    void fail();

    /// Takes the reports that have come, in order.
    std::vector<Report> takeReports();

private:
    struct Text {
        int line;
        std::string rest; ///< what the line has not taken
        std::optional<Ticket> ticket;
        Instant since;
    };

    Sent send(int line, std::string_view text, const std::optional<Ticket>& ticket);
    bool keep(int line, std::string_view rest, const std::optional<Ticket>& ticket);
    bool sendFirst(Instant now);
    std::deque<Text>::const_iterator firstReported() const;
    Instant failure(const Text& text) const;
    void end(const std::deque<Text>::const_iterator& text, bool written);
    void report(const Report& what) noexcept;

    std::deque<Text> texts_;
    std::size_t keptBytes_ = 0;
    Fd reportedLine_;             ///< serves all reported texts that are kept
    Instant lastTaken_ = AT_ONCE; ///< when the line has last taken something of what is kept
    Instant pauseEnd_ = NEVER;    ///< NEVER: room is waited for
    std::vector<Report> reports_;
};
