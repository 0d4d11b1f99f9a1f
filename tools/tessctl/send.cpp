#include "tools/tessctl/send.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string_view>
#include <unistd.h>

#include "tools/tessctl/answer_reader.h"
#include "tools/tessctl/command_line.h"
#include "tools/tessctl/line_report.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/seconds_text.h"
#include "tools/tessctl/standard_output.h"
#include "tools/tessctl/time_text.h"
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
        const std::vector<std::string_view> commands = commandsOf(line);
        if (commands.empty()) return;
        if (!options_.each) return sendWhole(line, commands.size());
        for (const std::string_view command : commands)
            if (answersDue(command) > 0) sendWhole(std::string(command), 1);
    }

    ExitStatus status() const
    {
        if (noAnswer_) return STATUS_NO_ANSWER;
        return refused_ ? STATUS_REFUSED : STATUS_DONE;
    }

private:
    void sendWhole(const std::string& line, std::size_t due)
    {
        report_ = {.line = line, .time = options_.timestamps ? now() : "", .answers = {}, .took = {}};
        const auto start = Clock::now();
        client_.sendLine(line, options_.wait);
        awaitAnswers(due);
        report_.took = std::chrono::round<std::chrono::microseconds>(Clock::now() - start);
        const auto end = Clock::now() + options_.linger;
        while (!noAnswerToThis_ && Clock::now() < end)
            (void)receive(std::chrono::ceil<milliseconds>(end - Clock::now()));
        printReport();
    }

    void awaitAnswers(std::size_t due)
    {
        noAnswerToThis_ = false;
        while (due > 0 && !noAnswerToThis_) {
            const std::size_t answers = receive(options_.wait);
            due -= std::min(due, answers);
            noAnswerToThis_ = answers == 0;
        }
        if (!noAnswerToThis_) return;
        noAnswer_ = true;
        say(std::string(client_.path()) + ": no answer to '" + report_.line + "' within " + secondsText(options_.wait) +
            ": is the process stuck, or tessd?");
    }

    /// Prints what comes until an answer has ended. One that goes on and on ends LONGEST_ANSWER
    /// after `patience`.
    /// @return how many answers have; 0 none has begun within `patience`
    std::size_t receive(milliseconds patience)
    {
        const auto deadline = Clock::now() + patience;
        for (std::string text;;) {
            const bool inside = reader_.insideAnswer();
            const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
            if (!inside && left.count() <= 0) return 0;
            if (left < -LONGEST_ANSWER) return take(reader_.takePause());
            std::size_t answers = 0;
            switch (client_.receive(inside ? PAUSE : left, text)) {
            case LocalClient::Received::text:
                answers = take(reader_.take(text));
                break;
            case LocalClient::Received::nothing:
                if (inside) answers = take(reader_.takePause());
                break;
            case LocalClient::Received::closed:
                (void)take(reader_.takePause());
                printReport();
                throw CtlError(STATUS_NO_CONNECTION, client_.closedText());
            }
            if (answers > 0) return answers;
        }
    }

    static std::string now() { return timeText(std::chrono::system_clock::now()); }

    /// @return how many answers have ended
    std::size_t take(const AnswerReader::Progress& progress)
    {
        refused_ = refused_ || std::ranges::any_of(progress.answers, &Answer::failed);
        if (options_.json) {
            std::ranges::copy(progress.answers, std::back_inserter(report_.answers));
            return progress.answers.size();
        }
        const std::string before = options_.timestamps ? now() + ' ' : "";
        for (const std::string& line : progress.lines)
            std::cout << before << (toTerminal_ ? visibleText(line) : line) << '\n';
        requireOutput();
        return progress.answers.size();
    }

    void printReport() const
    {
        if (!options_.json) return;
        const std::string text = jsonText(report_);
        std::cout << (toTerminal_ ? visibleText(text) : text) << '\n';
        requireOutput();
    }

    const SendOptions& options_;
    LocalClient client_;
    AnswerReader reader_;
    LineReport report_;
    bool toTerminal_ = ::isatty(STDOUT_FILENO) != 0;
    bool refused_ = false;
    bool noAnswer_ = false;
    bool noAnswerToThis_ = false;
};

void checkLine(const std::string& line, bool each)
{
    std::string problem = lineProblem(line);
    if (problem.empty() && each) problem = splitProblem(line);
    if (!problem.empty()) throw CtlError(STATUS_WRONG_USAGE, problem);
}

std::vector<std::string> givenLines(const std::vector<std::string>& arguments)
{
    std::vector<std::string> lines; // an argument with line ends in it is several
    for (std::string_view rest : arguments) {
        for (std::size_t end; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1))
            lines.emplace_back(rest.substr(0, end));
        lines.emplace_back(rest);
    }
    return lines;
}

} // namespace

ExitStatus runSend(const SendOptions& options)
{
    const std::vector<std::string> given = givenLines(options.lines);
    for (const std::string& line : given)
        checkLine(line, options.each);
    Sender sender(options);
    for (const std::string& line : given)
        sender.send(line);
    if (!options.lines.empty()) return sender.status();
    for (std::string line; std::getline(std::cin, line);) {
        checkLine(line, options.each);
        sender.send(line);
    }
    if (std::ferror(stdin) != 0) throw CtlError(STATUS_REFUSED, "standard input cannot be read");
    return sender.status();
}
