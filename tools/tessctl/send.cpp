#include "tools/tessctl/send.h"

#include <algorithm>
#include <iostream>
#include <string_view>
#include <unistd.h>

#include "tools/tessctl/answer_reader.h"
#include "tools/tessctl/command_line.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/seconds_text.h"
#include "tools/tessctl/visible_text.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// What ends an answer that has neither an empty line nor a "?".
constexpr milliseconds PAUSE{200};
constexpr milliseconds LONGEST_ANSWER{10'000};

class Sender {
public:
    explicit Sender(const SendOptions& options) : options_(options), client_(options.port, options.tag, options.wait) {}

    void send(const std::string& line)
    {
        std::size_t due = answersDue(line);
        if (due == 0) return;
        client_.sendLine(line, options_.wait);
        while (due > 0) {
            const std::size_t answers = receive(options_.wait);
            if (answers == 0) {
                say(std::string(client_.path()) + ": no answer to '" + line + "' within " + secondsText(options_.wait) +
                    ": is the process stuck, or tessd?");
                noAnswer_ = true;
                return;
            }
            due -= std::min(due, answers);
        }
        const auto end = Clock::now() + options_.linger;
        while (Clock::now() < end)
            (void)receive(std::chrono::ceil<milliseconds>(end - Clock::now()));
    }

    ExitStatus status() const
    {
        if (noAnswer_) return STATUS_NO_ANSWER;
        return refused_ ? STATUS_REFUSED : STATUS_DONE;
    }

private:
    /// Prints what comes until an answer has ended. One that goes on and on ends LONGEST_ANSWER after `patience`.
    /// @return how many answers have; 0 none has begun within `patience`
    std::size_t receive(milliseconds patience)
    {
        const auto deadline = Clock::now() + patience;
        for (std::string text;;) {
            const bool inside = reader_.insideAnswer();
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
            if (!inside && left.count() <= 0) return 0;
            if (left < -LONGEST_ANSWER) {
                print(reader_.takePause());
                return 1;
            }
            TAnswerReader::Progress progress;
            switch (client_.receive(inside ? PAUSE : left, text)) {
            case TLocalClient::Received::text:
                progress = reader_.take(text);
                break;
            case TLocalClient::Received::nothing:
                if (inside) progress = reader_.takePause();
                break;
            case TLocalClient::Received::closed:
                print(reader_.takePause());
                throw TCtlError(STATUS_NO_CONNECTION, client_.closedText());
            }
            print(progress);
            if (progress.answers > 0) return progress.answers;
        }
    }

    void print(const TAnswerReader::Progress& progress)
    {
        for (const std::string& line : progress.lines)
            std::cout << (toTerminal_ ? visibleText(line) : line) << '\n';
        std::cout.flush();
        refused_ = refused_ || progress.refusals > 0;
    }

    const SendOptions& options_;
    TLocalClient client_;
    TAnswerReader reader_;
    bool toTerminal_ = ::isatty(STDOUT_FILENO) != 0;
    bool refused_ = false;
    bool noAnswer_ = false;
};

void checkLine(const std::string& line)
{
    const std::string problem = lineProblem(line);
    if (!problem.empty()) throw TCtlError(STATUS_WRONG_USAGE, problem);
}

} // namespace

ExitStatus runSend(const SendOptions& options)
{
    std::vector<std::string> given; // a LINE with line ends in it is several
    for (std::string_view rest : options.lines) {
        for (std::size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1))
            given.emplace_back(rest.substr(0, end));
        given.emplace_back(rest);
    }
    std::ranges::for_each(given, checkLine);
    Sender sender(options);
    for (const std::string& line : given)
        sender.send(line);
    if (!options.lines.empty()) return sender.status();
    for (std::string line; std::getline(std::cin, line);) {
        checkLine(line);
        sender.send(line);
    }
    return sender.status();
}
