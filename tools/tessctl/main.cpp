#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>

#include "framework/log_mgr.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/check.h"
#include "tools/tessctl/console.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/listen.h"
#include "tools/tessctl/port_mask.h"
#include "tools/tessctl/requests.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/send.h"
#include "tools/tessctl/serve.h"

namespace {

constexpr long HIGHEST_ADDRESS = std::numeric_limits<std::int32_t>::max();
constexpr const char* VERSION = "tessctl " TESS_VERSION;
constexpr double MOST_SECONDS = 86'400;

const std::map<std::string, LocalPort> LOCAL_PORTS{{"ipc", LocalPort::ipc}, {"xcp", LocalPort::xcp}};

std::chrono::milliseconds fromSeconds(double seconds)
{
    return std::chrono::milliseconds(std::llround(seconds * 1000));
}

/// A name that tessd's command addresses can hold, and that can be told from the wildcard.
std::string nameProblem(const std::string& name)
{
    if (name.empty() || name.size() > 255) return "a name has 1 to 255 characters";
    if (name == "*" || name.find_first_of(" \t\r\n\v\f.|$") != std::string::npos)
        return "a name has no white space, '.', '|' or '$' in it, and is not '*'";
    return {};
}

/// A time in seconds. CLI::Range would let a nan pass.
std::string secondsProblem(const std::string& text, double least)
{
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0' && seconds >= least && seconds <= MOST_SECONDS) return {};
    std::ostringstream problem;
    problem << "a time is a number of seconds, " << least << " to " << MOST_SECONDS;
    return problem.str();
}

/// What the host's name cannot be. Nothing at all would restart the device without re-initialising it.
std::string hostProblem(const std::string& name)
{
    if (!name.empty() && name.find_first_of(" \t\r\n\v\f") == std::string::npos) return {};
    return "the name of this host has at least one character and no white space";
}

// CLI11 reads more out of lists than is meant here: "[a,b]" are two values, "{}" is none, and "++" ends them. A mark in front
// hides such words from it.
constexpr char MARK = '\x01';

std::string hidden(const std::string& word)
{
    const bool special =
        word.starts_with('[') || word.starts_with(MARK) || word == "{}" || word == "%%" || word == "++";
    return special ? MARK + word : word;
}

std::string shown(std::string word)
{
    if (word.starts_with(MARK)) word.erase(0, 1);
    return word;
}

std::string portsProblem(const std::string& names)
{
    return portMask(names) ? std::string() : "ports are com2, telnet, xcp and ipc, joined by commas";
}

/// The command line: fills the options, and remembers what is to be run.
class TCommandLine {
public:
    TCommandLine()
    {
        app_.set_version_flag("--version", VERSION);
        app_.set_help_all_flag("--help-all", "Help for all commands");
        app_.require_subcommand(1);
        app_.failure_message(CLI::FailureMessage::simple);
        addSend();
        addConsole();
        addServe();
        addListen();
        addChecks();
        addRequests();
    }

    int run(int argc, char** argv)
    {
        try {
            std::vector<std::string> words; // the last one first
            for (int i = argc - 1; i > 0; --i)
                words.push_back(hidden(argv[i]));
            app_.parse(std::move(words));
        } catch (const CLI::ParseError& error) {
            return app_.exit(error) == 0 ? STATUS_DONE : STATUS_WRONG_USAGE;
        }
        return run_();
    }

private:
    using Runner = std::function<ExitStatus()>;

    CLI::App& command(const std::string& name, const std::string& what, Runner runner)
    {
        CLI::App& made = *app_.add_subcommand(name, what);
        made.set_version_flag("--version", VERSION);
        made.callback([this, runner = std::move(runner)] { run_ = runner; });
        return made;
    }

    static void addPort(CLI::App& to, LocalPort& port)
    {
        to.add_option_function<std::string>(
              "-p,--port", [&port](const std::string& name) { port = LOCAL_PORTS.at(name); },
              "Socket to use: ipc (/tmp/socket, the default) or xcp (/tmp/xcp)")
            ->check(CLI::IsMember(LOCAL_PORTS));
    }

    static void addSeconds(CLI::App& to, const std::string& name, std::chrono::milliseconds& time, double least,
                           const std::string& what)
    {
        to.add_option_function<double>(
              name, [&time](double seconds) { time = fromSeconds(seconds); }, what)
            ->type_name("SECONDS")
            ->check([least](const std::string& text) { return secondsProblem(text, least); });
    }

    static CLI::Option* addText(CLI::App& to, const std::string& name, std::string& text, const std::string& what)
    {
        return to
            .add_option_function<std::string>(
                name, [&text](const std::string& word) { text = shown(word); }, what)
            ->type_name("TEXT");
    }

    static CLI::Option* addWords(CLI::App& to, const std::string& name, std::vector<std::string>& texts,
                                 const std::string& what)
    {
        const auto take = [&texts](const std::vector<std::string>& words) {
            texts.clear();
            std::ranges::transform(words, std::back_inserter(texts), shown);
        };
        return to.add_option_function<std::vector<std::string>>(name, take, what);
    }

    static void addPorts(CLI::App& to, std::uint32_t& mask)
    {
        mask = PORT_COM2 | PORT_TELNET | PORT_XCP | PORT_IPC;
        to.add_option_function<std::string>(
              "--ports", [&mask](const std::string& names) { mask = *portMask(names); },
              "Ports whose commands are wanted: com2,telnet,xcp,ipc (all of them by default)")
            ->check(portsProblem);
    }

    static void addAddress(CLI::App& to, std::optional<long>& address)
    {
        to.add_option("--address", address, "Queue address (a free one by default)")
            ->type_name("N")
            ->check(CLI::Range(1L, HIGHEST_ADDRESS));
    }

    void addSend()
    {
        CLI::App& send = command("send", "Send command lines and print the answers", [this] { return runSend(send_); });
        addPort(send, send_.port);
        send.add_option("--tag", send_.tag, "Tag that goes with the lines on xcp")->type_name("N");
        addSeconds(send, "-w,--wait", send_.wait, 0.001, "How long to wait for each answer (5)");
        addSeconds(send, "--linger", send_.linger, 0, "How long to go on printing after a line's answers (0)");
        addWords(send, "LINE", send_.lines, "Command lines; those of standard input when there are none");
    }

    void addConsole()
    {
        CLI::App& console =
            command("console", "Hold a dialogue at the terminal", [this] { return runConsole(consolePort_); });
        addPort(console, consolePort_);
    }

    void addServe()
    {
        CLI::App& serve = command("serve", "Be a process of the device, with answers made by a program",
                                  [this] { return runServe(serve_); });
        addText(serve, "NAME", serve_.name, "Name to register under")->required()->check(nameProblem);
        addPorts(serve, serve_.ports);
        addAddress(serve, serve_.address);
        addSeconds(serve, "--timeout", serve_.timeLimit, 0.001, "How long the program may run for a command (10)");
        addWords(serve, "PROGRAM", serve_.program,
                 "Behind --: the program, run once for each command, and its arguments")
            ->required();
    }

    void addListen()
    {
        CLI::App& listen =
            command("listen", "Register, and print every record that arrives", [this] { return runListen(listen_); });
        addText(listen, "NAME", listen_.name, "Name to register under (LISTEN)")->check(nameProblem);
        addPorts(listen, listen_.ports);
        addAddress(listen, listen_.address);
        listen.add_flag("--raw", listen_.raw, "Print whole records in hexadecimal");
        listen.add_option("--count", listen_.count, "End after so many records")
            ->type_name("N")
            ->check(CLI::PositiveNumber);
    }

    void addChecks()
    {
        CLI::App& check =
            command("check", "Say what works from here, port by port", [this] { return runCheck(json_); });
        check.add_flag("--json", json_, "As JSON");
        CLI::App& ping = command("ping", "Say whether one port works", [this] { return runPing(pinged_); });
        ping.add_option("PORT", pinged_, "queue, ipc (the default), xcp, telnet or com2")
            ->check(CLI::IsMember({"queue", "ipc", "xcp", "telnet", "com2"}));
    }

    void addRequests()
    {
        CLI::App& close = command("close", "Close all connections to tessd", [this] { return runClose(telnetOnly_); });
        close.add_flag("--telnet", telnetOnly_, "Telnet connections only");

        CLI::App& com2 =
            command("com2", "Write a text to the serial line", [this] { return runCom2(com2Text_, !noNewline_); });
        addText(com2, "TEXT", com2Text_, "The text")->required();
        com2.add_flag("-n,--no-newline", noNewline_, "Without a line end behind it");

        CLI::App& reset = command("reset", "Restart the device", [this] { return runReset(reinitHost_, yes_); });
        addText(reset, "--reinit", reinitHost_,
                "Re-initialise the software version first; wants the name of this host, so that no other is hit")
            ->type_name("HOST")
            ->check(hostProblem);
        reset.add_flag("--yes", yes_, "Do not ask");

        command("stop", "End tessd", [] { return runStop(); });
    }

    CLI::App app_{"Talks to tessd, the command-listener daemon.", "tessctl"};
    Runner run_;
    SendOptions send_;
    ServeOptions serve_;
    ListenOptions listen_;
    std::string pinged_ = "ipc";
    std::string com2Text_;
    std::string reinitHost_;
    LocalPort consolePort_ = LocalPort::ipc;
    bool json_ = false;
    bool telnetOnly_ = false;
    bool noNewline_ = false;
    bool yes_ = false;
};

} // namespace

int main(int argc, char** argv)
try {
    logMgr.setLogParameters(128, 6, "    [tessctl]", 4);
    return TCommandLine().run(argc, argv);
} catch (const TCtlError& error) {
    say(error.what());
    return error.status();
} catch (const std::exception& error) {
    say(error.what());
    return STATUS_NO_CONNECTION;
}
