#include "tools/tessctl/console.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <histedit.h>
#include <langinfo.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "common/text.h"
#include "tools/tessctl/answer_reader.h"
#include "tools/tessctl/command_line.h"
#include "tools/tessctl/history_file.h"
#include "tools/tessctl/key_decoder.h"
#include "tools/tessctl/visible_text.h"
#include "tools/tessctl/word_completion.h"

namespace {

constexpr int HISTORY_LINES = 1000;
constexpr int PAUSE_MS = 200;               // then a line without an end is shown as it is
constexpr std::chrono::seconds PATIENCE{5}; // with a tessd that takes no connections, or does not read

constexpr std::string_view ASCII = "ANSI_X3.4-1968"; // of the locales C and POSIX
constexpr const char* HINT = "\\h shows help, \\q or Ctrl-D leaves.";
constexpr const char* HELP = R"(Type a command and Enter; answers appear above the line that you are typing.

  s3.ENC GETX      to the process ENC of this device, whose unit is s3
  GETX             to every process but GPSD
  *                are you there? tessd answers 0
  A|B              two commands in one line
  DELAY 10.0|A     in ten seconds
  ?                as an answer: nobody took the command, or it was refused

Tab completes, the arrow up brings earlier lines back, Ctrl-C clears the line.
\h shows this, \q or Ctrl-D leaves. man tessctl has the rest.)";

/// What people type who want something of the console, and not of the device.
bool meantForTheConsole(std::string_view line)
{
    return line == "quit" || line == "exit" || line == "help";
}

class Console {
public:
    explicit Console(LocalPort port)
        : client_(port, 0, PATIENCE), history_(::history_init(), ::history_end),
          edit_(::el_init("tessctl", stdin, stdout, stderr), ::el_end)
    {
        EditLine* const edit = edit_.get();
        ::el_set(edit, EL_CLIENTDATA, this);
        ::el_set(edit, EL_PROMPT, prompt);
        ::el_set(edit, EL_EDITOR, "emacs");
        ::el_set(edit, EL_SIGNAL, 1);
        ::el_set(edit, EL_GETCFN, getCharacter);
        ::el_set(edit, EL_ADDFN, "complete", "completes a word", completeWord);
        ::el_set(edit, EL_BIND, "^I", "complete", nullptr);
        // Ctrl-C and Ctrl-Z are keys like others while a line is typed.
        ::el_set(edit, EL_SETTY, "-d", "-isig", nullptr);
        ::el_set(edit, EL_ADDFN, "clear-typed", "clears the line", clearTyped);
        ::el_set(edit, EL_BIND, "^C", "clear-typed", nullptr);
        ::el_set(edit, EL_ADDFN, "suspend", "stops the console until it is called back", suspend);
        ::el_set(edit, EL_BIND, "^Z", "suspend", nullptr);
        HistEvent event{};
        ::history(history_.get(), &event, H_SETSIZE, HISTORY_LINES);
        ::history(history_.get(), &event, H_SETUNIQUE, 1);
        ::el_set(edit, EL_HIST, ::history, history_.get());
        if (!historyFile_.empty()) ::history(history_.get(), &event, H_LOAD, historyFile_.c_str());
        ::el_source(edit, nullptr); // the user's own key bindings, editrc(5)
    }

    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;
    ~Console() = default;

    ExitStatus run()
    {
        std::puts(HINT);
        for (;;) {
            int count = 0;
            ::el_set(edit_.get(), EL_PREP_TERM, 1); // libedit shows the prompt before it takes the keys
            const char* const typed = ::el_gets(edit_.get(), &count);
            if (std::exchange(cleared_, false)) continue; // an empty line, which looks like the end of the input
            if (typed == nullptr || count <= 0) break;
            const std::string line(withoutLineEnds({typed, static_cast<std::size_t>(count)}));
            if (line == "\\q") return STATUS_DONE;
            take(line);
        }
        if (closed_) throw CtlError(STATUS_NO_CONNECTION, client_.closedText());
        std::puts(""); // behind the prompt
        return STATUS_DONE;
    }

private:
    static Console& of(EditLine* edit)
    {
        Console* console = nullptr;
        ::el_get(edit, EL_CLIENTDATA, &console);
        return *console;
    }

    static char* prompt(EditLine*)
    {
        static std::array<char, 8> text{"tess> "};
        return text.data();
    }

    void take(const std::string& line)
    {
        if (line == "\\h")
            std::puts(HELP);
        else if (meantForTheConsole(line))
            std::printf("Not sent: %s\n'* %s' would send the word to every process.\n", HINT, line.c_str());
        else if (answersDue(line) > 0)
            send(line);
    }

    void send(const std::string& line)
    {
        HistEvent event{};
        ::history(history_.get(), &event, H_ENTER, line.c_str());
        words_.see(line);
        // At once: Ctrl-C and a closed terminal leave no time for it.
        if (!historyFile_.empty()) ::history(history_.get(), &event, H_SAVE, historyFile_.c_str());
        const std::string bytes = typedBytes(line);
        if (const std::string problem = lineProblem(bytes); !problem.empty()) {
            std::printf("Not sent: %s\n", problem.c_str());
            return;
        }
        client_.sendLine(bytes, PATIENCE);
    }

    /// Waits for a key, and shows what tessd sends meanwhile.
    static int getCharacter(EditLine* edit, wchar_t* character)
    {
        Console& self = of(edit);
        for (;;) {
            if (const std::optional<wchar_t> next = self.keys_.next()) {
                *character = *next;
                return 1;
            }
            if (!self.waitForKey()) return 0;
            char byte = 0;
            const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) return static_cast<int>(count);
            self.keys_.add(byte);
        }
    }

    /// Ctrl-C: leaves the typed line on the screen and begins a new one.
    static unsigned char clearTyped(EditLine* edit, int)
    {
        const LineInfo* const line = ::el_line(edit);
        (void)::el_cursor(edit, static_cast<int>(line->lastchar - line->cursor));
        ::el_set(edit, EL_REFRESH);
        std::puts("^C");
        of(edit).cleared_ = true;
        return CC_NEWLINE;
    }

    static unsigned char suspend(EditLine*, int)
    {
        (void)::raise(SIGTSTP); // libedit gives the terminal back, and takes it again afterwards
        return CC_REDISPLAY;
    }

    /// @return false when tessd has closed the connection
    bool waitForKey()
    {
        for (;;) {
            std::array<pollfd, 2> inputs{{{STDIN_FILENO, POLLIN, 0}, {client_.fd(), POLLIN, 0}}};
            const int ready = ::poll(inputs.data(), inputs.size(), reader_.insideAnswer() ? PAUSE_MS : -1);
            if (ready == 0) show(reader_.takePause());
            if (inputs[1].revents != 0 && !takeAnswer()) return false;
            if (inputs[0].revents != 0) return true;
        }
    }

    bool takeAnswer()
    {
        std::string text;
        switch (client_.receive(std::chrono::milliseconds(0), text)) {
        case LocalClient::Received::closed:
            closed_ = true;
            return false;
        case LocalClient::Received::text:
            show(reader_.take(text));
            break;
        case LocalClient::Received::nothing:
            break;
        }
        return true;
    }

    /// Prints above the line being typed: erases it, prints, and has it drawn again.
    void show(const AnswerReader::Progress& progress)
    {
        if (progress.lines.empty()) return;
        std::fputs("\r\033[J", stdout);
        for (const std::string& line : progress.lines) {
            std::fputs((visibleText(line) + '\n').c_str(), stdout);
        }
        std::fflush(stdout);
        ::el_set(edit_.get(), EL_REFRESH);
    }

    static unsigned char completeWord(EditLine* edit, int)
    {
        Console& self = of(edit);
        const LineInfo* const line = ::el_line(edit);
        const std::string_view before(line->buffer, static_cast<std::size_t>(line->cursor - line->buffer));
        const std::vector<std::string> words = self.words_.complete(before);
        if (words.empty()) return CC_ERROR;
        const std::size_t typed = WordCompletion::lastWord(before).size();
        const std::string common = WordCompletion::commonBeginning(words);
        if (common.size() >= typed) {
            ::el_deletestr(edit, static_cast<int>(typed));
            ::el_insertstr(edit, (words.size() == 1 ? common + ' ' : common).c_str());
            if (words.size() == 1 || common.size() > typed) return CC_REFRESH;
        }
        AnswerReader::Progress choice;
        choice.lines.emplace_back();
        for (const std::string& word : words)
            choice.lines.back() += word + "  ";
        self.show(choice);
        return CC_REFRESH;
    }

    LocalClient client_;
    AnswerReader reader_;
    WordCompletion words_;
    std::unique_ptr<History, void (*)(History*)> history_;
    std::unique_ptr<EditLine, void (*)(EditLine*)> edit_;
    std::string historyFile_ = historyFile();
    KeyDecoder keys_;
    bool cleared_ = false;
    bool closed_ = false;
};

} // namespace

ExitStatus runConsole(LocalPort port)
{
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0)
        throw CtlError(STATUS_WRONG_USAGE, "console wants a terminal; 'tessctl send' reads lines from anywhere");
    // Where no locale is set, characters would end at 127; devices have none, and terminals speak
    // UTF-8.
    if (std::setlocale(LC_CTYPE, "") == nullptr || ::nl_langinfo(CODESET) == ASCII)
        (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    return Console(port).run();
}
