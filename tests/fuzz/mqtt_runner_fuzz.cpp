// Requests in any order, over a tessd that forwards, refuses, answers late, twice, with tags of
// others or not at all, and goes and comes back: each request gets one reply, and it is its own.
#include <deque>
#include <map>
#include <set>

#include "framework/tess_messages.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tools/tess-mqtt/command_runner.h"

namespace {

using namespace std::chrono_literals;

/// tessd as far as the bridge sees it: it takes frames one after the other, and says by itself what
/// the words of a line want; "P" is forwarded to a process, which answers when the input says so.
class Model {
public:
    explicit Model(FuzzInput& input)
        : input_(input),
          runner_(
              {.most = 8, .timeout = 5s}, [this](const std::string& bytes) { take(bytes); },
              [this](const Request& request, const Reply& reply, bool begun) { finish(request, reply, begun); })
    {
    }

    void run()
    {
        runner_.onUp(now_);
        isUp_ = true;
        while (!input_.empty())
            act();
        end();
        fuzzCheck(open_.empty(), "every request is over");
        fuzzCheck(runner_.inFlight() == 0, "nothing is left");
    }

private:
    void act()
    {
        switch (input_.byte() % 8) {
        case 0:
        case 1:
            return ask();
        case 2:
        case 3:
            return serve();
        case 4:
            return reply();
        case 5:
            return disturb();
        case 6:
            now_ += std::chrono::milliseconds(input_.byte() * 20);
            return runner_.onTime(now_);
        default:
            return reconnect();
        }
    }

    void ask()
    {
        // Each word is a command; its answer names the request, so that it can be told.
        constexpr const char* LINES[] = {"P", "N", "*", "P|N", "*|N|*", "N|*|P", "P|P", "*|*"};
        const std::string name = std::to_string(++asked_);
        Request request{.responseTopic = name, .correlation = {}, .line = input_.oneOf(LINES), .arrived = now_};
        if (input_.byte() % 8 == 0) request.expires = now_ + std::chrono::milliseconds(input_.byte() * 10);
        open_[name] = request;
        if (runner_.wantsNewConnection(now_)) reconnect();
        runner_.take(std::move(request), now_);
    }

    void take(const std::string& bytes)
    {
        std::string rest = bytes;
        while (const auto frame = takeFrame(rest))
            frames_.push_back(*frame);
        fuzzCheck(rest.empty(), "only whole frames are sent");
    }

    /// The next frame, if there is one.
    void serve()
    {
        if (frames_.empty()) return;
        const XcpFrame frame = frames_.front();
        frames_.pop_front();
        std::string_view line = frame.text;
        for (;;) {
            const std::size_t end = line.find('|');
            command(line.substr(0, end), static_cast<std::uint16_t>(frame.tag));
            if (end == std::string_view::npos) return;
            line.remove_prefix(end + 1);
        }
    }

    void command(std::string_view word, std::uint16_t tag)
    {
        if (word == "P") {
            fuzzCheck(tag != 0, "a request has a tag");
            forwarded_.push_back(tag);
            return;
        }
        say(MSG_TEXT, input_.byte() % 2 == 0 ? 0 : lastTag(), word == "*" ? "0\r\n\r\n" : "?\r\n");
    }

    std::uint32_t lastTag() const { return forwarded_.empty() ? 1 : forwarded_.back(); }

    /// A process answers one of its commands, whichever.
    void reply()
    {
        if (forwarded_.empty()) return;
        const auto which = static_cast<std::ptrdiff_t>(input_.byte() % forwarded_.size());
        const std::uint16_t tag = forwarded_[static_cast<std::size_t>(which)];
        forwarded_.erase(forwarded_.begin() + which);
        say(MSG_REPLY, tag, "done " + std::to_string(tag) + "\r\n\r\n");
    }

    /// An answer of a process for somebody else.
    void disturb() { say(MSG_REPLY, 0, "stray\r\n\r\n"); }

    void say(std::uint32_t kind, std::uint32_t tag, const std::string& text)
    {
        runner_.onFrame({.kind = kind, .sender = 0, .tag = tag, .text = text}, now_);
    }

    void reconnect()
    {
        const bool isBack = input_.byte() % 2 == 0;
        runner_.onDown(now_, isBack);
        frames_.clear();
        forwarded_.clear();
        runner_.onUp(now_);
    }

    void finish(const Request& request, const Reply& reply, bool begun)
    {
        fuzzCheck(open_.erase(request.responseTopic) == 1, "a request is over once");
        const bool saysWhy = reply.text.find("Error: ") != std::string::npos;
        if (reply.status == ReplyStatus::timeout || reply.status == ReplyStatus::busy || !begun)
            fuzzCheck(saysWhy, "what was not answered says why");
        if (reply.status == ReplyStatus::busy) fuzzCheck(!begun, "what is busy was not begun");
        if (reply.status == ReplyStatus::answered || (reply.status == ReplyStatus::refused && begun))
            checkAnswers(request.line, reply);
    }

    /// What tessd says by itself is there as often as the line asks for it, and what processes have
    /// said has one tag.
    static void checkAnswers(const std::string& line, const Reply& reply)
    {
        std::multiset<std::string> expected;
        std::multiset<std::string> got;
        std::set<std::string> tags;
        split(line, '|', [&](const std::string& word) {
            expected.insert(word == "*" ? "0" : word == "N" ? "?" : "P");
        });
        split(reply.text, '\n', [&](const std::string& text) {
            if (text.starts_with("done ")) tags.insert(text);
            got.insert(text.starts_with("done ") ? "P" : text);
        });
        fuzzCheck(got == expected, "the answers are those that the line asks for");
        fuzzCheck(tags.size() <= 1, "all of one request");
        fuzzCheck((reply.status == ReplyStatus::refused) == expected.contains("?"), "the status says what they are");
    }

    template <class Take> static void split(const std::string& text, char separator, Take take)
    {
        std::string piece;
        for (const char c : text + separator) {
            if (c == separator)
                take(std::exchange(piece, {}));
            else
                piece += c;
        }
    }

    /// Time passes until everything is over.
    void end()
    {
        for (int i = 0; i < 100 && !open_.empty(); ++i) {
            now_ += 1s;
            runner_.onTime(now_);
            if (runner_.wantsNewConnection(now_)) {
                runner_.onDown(now_, true);
                runner_.onUp(now_);
            }
        }
    }

    FuzzInput& input_;
    Instant now_{1h};
    bool isUp_ = false;
    int asked_ = 0;
    std::map<std::string, Request> open_;
    std::deque<XcpFrame> frames_;          ///< that tessd has not read
    std::vector<std::uint16_t> forwarded_; ///< tags that processes have not answered
    CommandRunner runner_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > 4096) return 0;
    FuzzInput input(data, size);
    Model(input).run();
    return 0;
}
