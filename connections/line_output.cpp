#include "connections/line_output.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <unistd.h>
#include <utility>

#include "connections/connection_log.h"

namespace {

/// @return how many bytes the line has taken; nothing when it is gone
std::optional<std::size_t> offer(int line, std::string_view bytes)
{
    const ssize_t taken = ::write(line, bytes.data(), bytes.size());
    if (taken > 0) return static_cast<std::size_t>(taken);
    if (taken < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
    return std::nullopt;
}

} // namespace

LineOutput::Sent LineOutput::write(int line, std::string_view text)
{
    return send(line, text, std::nullopt);
}

LineOutput::Sent LineOutput::writeReported(Fd line, std::string_view text, const Ticket& ticket)
{
    const bool hasLine = reportedLine_.get() >= 0;
    const Sent sent = send((line.get() >= 0 && hasLine ? reportedLine_ : line).get(), text, ticket);
    if (sent == Sent::kept && !hasLine) reportedLine_ = std::move(line);
    return sent;
}

LineOutput::Sent LineOutput::send(int line, std::string_view text, const std::optional<Ticket>& ticket)
{
    if (line < 0) return Sent::refused;
    if (text.size() > CAPACITY - keptBytes_) {
        logMessage(connection_log::com2OutputDropped);
        return Sent::refused;
    }
    if (texts_.empty() && !text.empty()) {
        const auto taken = offer(line, text);
        if (!taken) return Sent::refused;
        text.remove_prefix(*taken);
    }
    if (text.empty()) return Sent::whole;
    if (keep(line, text, ticket)) return Sent::kept;
    logMessage(connection_log::com2OutputDropped);
    return Sent::refused;
}

/// @return false: there is no memory for it
bool LineOutput::keep(int line, std::string_view rest, const std::optional<Ticket>& ticket)
try {
    const bool goesWithTheLast = !ticket && !texts_.empty() && !texts_.back().ticket && texts_.back().line == line;
    if (goesWithTheLast)
        texts_.back().rest += rest;
    else
        texts_.push_back({line, std::string(rest), ticket, instantNow()});
    keptBytes_ += rest.size();
    return true;
} catch (const std::bad_alloc&) {
    return false;
}

void LineOutput::goOn(Instant now)
{
    if (pauseEnd_ != NEVER) {
        if (pauseEnd_ <= now) pauseEnd_ = NEVER;
        return;
    }
    const std::size_t before = keptBytes_;
    while (!texts_.empty() && sendFirst(now)) {
    }
    // The line discipline sends a tab as several blanks, all or none, and may have too little room
    // for that although it reports some: select(2) would return at once, again and again.
    if (!texts_.empty() && keptBytes_ == before) pauseEnd_ = now + RETRY_TIME;
    for (auto text = firstReported(); text != texts_.end() && failure(*text) <= now; text = firstReported())
        end(text, false);
}

/// @return true when the first text has come to its end
bool LineOutput::sendFirst(Instant now)
{
    Text& text = texts_.front();
    const auto taken = offer(text.line, text.rest);
    if (!taken) {
        end(texts_.begin(), false);
        return true;
    }
    if (*taken == 0) return false;
    lastTaken_ = now;
    text.rest.erase(0, *taken);
    keptBytes_ -= *taken;
    if (!text.rest.empty()) return false;
    end(texts_.begin(), true);
    return true;
}

std::deque<LineOutput::Text>::const_iterator LineOutput::firstReported() const
{
    return std::find_if(texts_.begin(), texts_.end(), [](const Text& text) { return text.ticket.has_value(); });
}

/// @return when a reported text fails unless the line takes something before
Instant LineOutput::failure(const Text& text) const
{
    return std::max(lastTaken_, text.since) + PATIENCE;
}

/// Removes a text, and reports it when somebody asked for that.
void LineOutput::end(const std::deque<Text>::const_iterator& text, bool written)
{
    const std::optional<Ticket> ticket = text->ticket;
    keptBytes_ -= text->rest.size();
    texts_.erase(text);
    if (firstReported() == texts_.end()) reportedLine_.reset();
    if (texts_.empty()) pauseEnd_ = NEVER;
    if (ticket) report({*ticket, written});
}

/// Without memory nobody is told.
void LineOutput::report(const Report& what) noexcept
try {
    reports_.push_back(what);
} catch (const std::bad_alloc&) {
}

int LineOutput::waitsFor() const
{
    return texts_.empty() || pauseEnd_ != NEVER ? -1 : texts_.front().line;
}

Instant LineOutput::due() const
{
    if (pauseEnd_ != NEVER) return pauseEnd_;
    const auto text = firstReported();
    return text != texts_.end() ? failure(*text) : NEVER;
}

void LineOutput::fail()
{
    while (!texts_.empty())
        end(texts_.begin(), false);
}

std::vector<LineOutput::Report> LineOutput::takeReports()
{
    return std::exchange(reports_, {});
}
