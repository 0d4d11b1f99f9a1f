#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <unistd.h>

#include "framework/log_mgr.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/check.h"
#include "tools/tessctl/console.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/fleet_program.h"
#include "tools/tessctl/listen.h"
#include "tools/tessctl/option_checks.h"
#include "tools/tessctl/port_mask.h"
#include "tools/tessctl/remote.h"
#include "tools/tessctl/requests.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/send.h"
#include "tools/tessctl/serve.h"
#include "tools/tessctl/standard_output.h"
#include "tools/tessctl/status.h"
#include "tools/tessctl/top.h"
#include "tools/tessctl/usage_error.h"
#include "tools/tessctl/watch.h"

namespace {

constexpr const char* VERSION = "tessctl " TESS_VERSION;

/// For -H: without a terminal nobody else tells a process there that its user has gone.
constexpr const char* UNTIL_UNREAD = "--until-unread";

const std::map<std::string, LocalPort> LOCAL_PORTS{{"ipc", LocalPort::ipc}, {"xcp", LocalPort::xcp}};

std::chrono::milliseconds fromSeconds(double seconds)
{
    return std::chrono::milliseconds(std::llround(seconds * 1000));
}

/// The command line: fills the options, and remembers what is to be run.
class CommandLine {
public:
    CommandLine()
    {
        app_.set_version_flag("-V,--version", VERSION);
        app_.set_help_all_flag("--help-all", "Help for all commands");
        app_.require_subcommand(1);
        app_.footer("Examples:\n  tessctl send 's3.ENC GETX'\n  tessctl console\n  tessctl check\n\n"
                    "'tessctl help COMMAND' tells more of each, 'man tessctl' everything.");
        addHost(app_);
        addSend();
        addConsole();
        addServe();
        addListen();
        addChecks();
        addSeeing();
        addRequests();
        addFleet();
        addHelp();
    }

    int run(int argc, char** argv)
    {
        const std::vector<std::string> typed(argv + 1, argv + argc);
        try {
            std::vector<std::string> words; // in reverse order, as parse() wants them
            std::transform(typed.rbegin(), typed.rend(), std::back_inserter(words), hidden);
            app_.parse(std::move(words));
        } catch (const CLI::ParseError& error) {
            return explain(error);
        }
        if (host_.empty()) return run_();
        std::vector<std::string> there = withoutHost(typed);
        if (there.size() == typed.size()) // it would be run with -H there, too, and so on without end
            throw CtlError(STATUS_WRONG_USAGE, "-H stands alone: tessctl COMMAND -H " + host_);
        if (app_.got_subcommand("serve")) there.insert(std::ranges::find(there, "serve") + 1, UNTIL_UNREAD);
        runRemote(remoteCommand(host_, there, remoteInput()));
    }

private:
    using Runner = std::function<ExitStatus()>;

    /// What was asked for, or what is wrong.
    ExitStatus explain(const CLI::ParseError& error) const
    {
        if (error.get_exit_code() == 0) {
            std::ostringstream text;
            (void)app_.exit(error, text, text);
            std::cout << text.str();
            requireOutput();
            return STATUS_DONE;
        }
        say(usageError(app_, error));
        say("try '" + helpCommand(app_) + "'");
        return STATUS_WRONG_USAGE;
    }

    CLI::App& command(const std::string& name, const std::string& what, const std::string& examples, Runner runner)
    {
        CLI::App& made = *app_.add_subcommand(name, what);
        made.set_version_flag("-V,--version", VERSION);
        made.footer("Examples:\n" + examples + "\nThe manual has more: man tessctl");
        made.callback([this, runner = std::move(runner)] { run_ = runner; });
        addHost(made);
        return made;
    }

    void addHost(CLI::App& to)
    {
        addText(to, "-H,--host", host_, "Run there, over ssh")->type_name("[USER@]HOST")->check(remoteHostProblem);
    }

    /// A command that asks its user something, at a terminal, needs one on the other host too.
    RemoteInput remoteInput() const
    {
        const bool asks = app_.got_subcommand("console") || app_.got_subcommand("reset") || app_.got_subcommand("top");
        if (asks && ::isatty(STDIN_FILENO) != 0 && ::isatty(STDOUT_FILENO) != 0) return RemoteInput::terminal;
        return app_.got_subcommand("send") && send_.lines.empty() ? RemoteInput::here : RemoteInput::nothing;
    }

    static void addPort(CLI::App& to, LocalPort& port)
    {
        to.add_option_function<std::string>(
              "-p,--port", [&port](const std::string& name) { port = LOCAL_PORTS.at(name); },
              std::string("Socket to use: ipc (") + IPC_SOCKET_PATH + ", the default) or xcp (" + XCP_SOCKET_PATH + ")")
            ->type_name("PORT")
            ->check([](const std::string& name) {
                return choiceProblem(name, {"ipc", "xcp"}, "a port");
            });
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
            ->type_name("");
    }

    static CLI::Option* addWords(CLI::App& to, const std::string& name, std::vector<std::string>& texts,
                                 const std::string& what)
    {
        const auto take = [&texts](const std::vector<std::string>& words) {
            texts.clear();
            std::ranges::transform(words, std::back_inserter(texts), shown);
        };
        return to.add_option_function<std::vector<std::string>>(name, take, what)->type_name("");
    }

    static void addPorts(CLI::App& to, std::uint32_t& mask)
    {
        mask = PORT_COM2 | PORT_TELNET | PORT_XCP | PORT_IPC;
        to.add_option_function<std::string>(
              "--ports", [&mask](const std::string& names) { mask = *portMask(names); },
              "Ports whose commands are wanted: com2,telnet,xcp,ipc (all of them by default)")
            ->type_name("LIST")
            ->check(portsProblem);
    }

    /// @param what  the number is ("a tag")
    template <class Number>
    static void addNumber(CLI::App& to, const std::string& name, std::string_view what, long least, long most,
                          Number& number, const std::string& help)
    {
        to.add_option_function<std::string>(
              name, [&number](const std::string& text) { number = static_cast<Number>(std::stol(text)); }, help)
            ->type_name("N")
            ->check([=](const std::string& text) { return wholeNumberProblem(text, least, most, what); });
    }

    void addSend()
    {
        CLI::App& send = command("send", "Send command lines and print the answers",
                                 "  tessctl send 's3.ENC SETX 5' 's3.ENC GETX'\n"
                                 "  tessctl send --each 's3.ENC SETX 7|s3.ENC GETX'\n"
                                 "  tessctl send --json <commands.txt\n",
                                 [this] { return runSend(send_); });
        addPort(send, send_.port);
        addNumber(send, "--tag", "a tag", 0, 65535, send_.tag, "Tag that goes with the lines on xcp");
        addSeconds(send, "-w,--wait", send_.wait, 0.001, "How long to wait for each answer (5)");
        addSeconds(send, "--linger", send_.linger, 0, "How long to go on printing after a line's answers (0)");
        send.add_flag("--each", send_.each, "Send the commands between the '|' of a line one by one");
        send.add_flag("--json", send_.json, "Print a JSON object for each line");
        send.add_flag("--timestamps", send_.timestamps, "Print the time, too");
        addWords(send, "LINE", send_.lines, "Command lines; those of standard input when there are none");
    }

    void addConsole()
    {
        CLI::App& console =
            command("console", "Hold a dialogue at the terminal", "  tessctl console\n  tessctl console --port xcp\n",
                    [this] { return runConsole(consolePort_); });
        addPort(console, consolePort_);
    }

    void addServe()
    {
        CLI::App& serve = command("serve", "Register, and answer each command with what a program prints",
                                  "  tessctl serve LOAD -- cat /proc/loadavg\n"
                                  "  tessctl serve THERM --ports ipc,xcp -- ./thermometer.sh\n",
                                  [this] { return runServe(serve_); });
        addText(serve, "NAME", serve_.name, "Name to register under")->required()->check(nameProblem);
        addPorts(serve, serve_.ports);
        addNumber(serve, "--address", "an address", 1, HIGHEST_QUEUE_ADDRESS, serve_.address,
                  "Queue address (a free one)");
        addSeconds(serve, "--timeout", serve_.timeLimit, 0.001, "How long the program may run for a command (10)");
        serve.add_flag(UNTIL_UNREAD, serve_.untilUnread)->group(""); // hidden
        addWords(serve, "PROGRAM", serve_.program,
                 "Behind --: the program, run once for each command, and its arguments")
            ->required();
    }

    void addListen()
    {
        CLI::App& listen = command("listen", "Register, and print every record that arrives",
                                   "  tessctl listen\n  tessctl listen THERM --take-over --count 1\n",
                                   [this] { return runListen(listen_); });
        addText(listen, "NAME", listen_.name, "Name to register under (LISTEN)")->check(nameProblem);
        addPorts(listen, listen_.ports);
        addNumber(listen, "--address", "an address", 1, HIGHEST_QUEUE_ADDRESS, listen_.address,
                  "Queue address (a free one)");
        listen.add_flag("--take-over", listen_.takeOver,
                        "Take the commands of another tessctl of that name, until the end");
        listen.add_flag("--raw", listen_.raw, "Print whole records in hexadecimal");
        addNumber(listen, "--count", "a count", 1, std::numeric_limits<long>::max(), listen_.count,
                  "End after so many records");
    }

    void addChecks()
    {
        CLI::App& check = command("check", "Say what works from here, port by port",
                                  "  tessctl check\n  tessctl check ipc xcp telnet\n  tessctl check --json\n",
                                  [this] { return runCheck(json_, checked_); });
        check.add_flag("--json", json_, "As JSON");
        check.add_option("PORT", checked_, "What to look at: queue, daemon, ipc, xcp, telnet, com2 (all of them)")
            ->type_name("")
            ->check([](const std::string& name) { return choiceProblem(name, allChecks(), "what is checked"); });
        CLI::App& ping = command("ping", "Say whether one port works", "  tessctl ping\n  tessctl ping telnet\n",
                                 [this] { return runPing(pinged_); });
        ping.add_option("PORT", pinged_, "queue, ipc (the default), xcp, telnet or com2")
            ->type_name("")
            ->check([](const std::string& name) {
                return choiceProblem(name, {"queue", "ipc", "xcp", "telnet", "com2"}, "a port");
            });
    }

    CLI::App& report(const std::string& name, const std::string& what, const std::string& examples, Runner runner)
    {
        CLI::App& made = command(name, what, examples, std::move(runner));
        made.add_flag("--json", json_, "As JSON");
        return made;
    }

    void addSeeing()
    {
        report("status", "Show what tessd is doing", "  tessctl status\n  tessctl status --json | jq .count\n",
               [this] { return runStatus(json_); });
        report("list", "Show the registered processes", "  tessctl list\n  tessctl list --names\n", [this] {
            return runList(json_, namesOnly_);
        }).add_flag("--names", namesOnly_, "The names only, one a line");
        report("who", "Show the connections", "  tessctl who\n", [this] { return runWho(json_); });
        report("metrics", "Print all numbers as OpenMetrics text",
               "  tessctl metrics >tess.prom.new && mv tess.prom.new tess.prom\n",
               [this] { return runMetrics(json_); });
        addWatch();
        addTop();
    }

    void addWatch()
    {
        CLI::App& watch =
            report("watch", "Print what happens, as it happens",
                   "  tessctl watch\n  tessctl watch --name ENC\n  tessctl watch --port telnet --json\n", [this] {
                       watch_.json = json_;
                       return runWatch(watch_);
                   });
        addText(watch, "--name", watch_.name, "Only what belongs to the process of this name")
            ->type_name("NAME")
            ->check(nameProblem);
        addText(watch, "--port", watch_.port, "Only what belongs to connections of this port")
            ->type_name("PORT")
            ->check([](const std::string& name) {
                return choiceProblem(name, {"com2", "telnet", "xcp", "ipc", "delay"}, "a port");
            });
        addNumber(watch, "--count", "a count", 1, std::numeric_limits<long>::max(), watch_.count,
                  "End after so many lines");
    }

    void addTop()
    {
        CLI::App& top = report("top", "Show rates, processes and clients, again and again",
                               "  tessctl top\n  tessctl top --json --count 60 --interval 10\n", [this] {
                                   top_.json = json_;
                                   return runTop(top_);
                               });
        addSeconds(top, "--interval", top_.interval, 0.1, "Time between two screens (1)");
        addNumber(top, "--count", "a count", 1, std::numeric_limits<long>::max(), top_.count,
                  "End after so many screens");
    }

    void addRequests()
    {
        CLI::App& close = command("close", "Close all connections to tessd", "  tessctl close --telnet\n",
                                  [this] { return runClose(telnetOnly_); });
        close.add_flag("--telnet", telnetOnly_, "Telnet connections only");

        CLI::App& com2 = command("com2", "Write a text to the serial line",
                                 "  tessctl com2 'Going down at noon.'\n  tessctl com2 -n 'name: '\n",
                                 [this] { return runCom2(com2Text_, !noNewline_); });
        addText(com2, "TEXT", com2Text_, "The text")->required();
        com2.add_flag("-n,--no-newline", noNewline_, "Without a line end behind it");

        CLI::App& reset = command("reset", "Restart the device", "  tessctl reset\n  tessctl reset --yes\n",
                                  [this] { return runReset(reinitHost_, yes_); });
        addText(reset, "--reinit", reinitHost_,
                "Re-initialise the software version first; wants the name of this host, so that no other is hit")
            ->type_name("HOST")
            ->check(ownHostProblem);
        reset.add_flag("--yes", yes_, "Do not ask");

        command("stop", "End tessd", "  tessctl stop\n", [] { return runStop(); });
    }

    /// A command of a command.
    CLI::App& fleetCommand(CLI::App& fleet, const std::string& name, const std::string& what,
                           const std::string& examples, Runner runner)
    {
        CLI::App& made = *fleet.add_subcommand(name, what);
        made.set_version_flag("-V,--version", VERSION);
        made.footer("Examples:\n" + examples + "\nThe manual has more: man tessctl");
        made.callback([this, runner = std::move(runner)] { run_ = runner; });
        addHost(made);
        addText(made, "--config", fleet_.settings, "How the broker is reached (~/.config/tess/fleet.conf)")
            ->type_name("FILE");
        addText(made, "--group", fleet_.group, "The devices of this group")->type_name("GROUP");
        addSeconds(made, "-w,--wait", fleet_.wait, 0.001, "How long to wait for all answers (10)");
        made.add_flag("--json", fleet_.json, "As JSON");
        return made;
    }

    void addFleet()
    {
        CLI::App& fleet = *app_.add_subcommand("fleet", "Do something with many devices, through a broker");
        fleet.set_version_flag("-V,--version", VERSION);
        fleet.require_subcommand(1);
        fleet.footer("Examples:\n  tessctl fleet status\n  tessctl fleet send 's3.ENC GETX' --all\n\n"
                     "'tessctl fleet send --help' tells more. The manual has everything: man tessctl");
        addHost(fleet);
        CLI::App& send = fleetCommand(fleet, "send", "Send a command line, and print the answers",
                                      "  tessctl fleet send 's3.ENC GETX' --all\n"
                                      "  tessctl fleet send 's3.ENC SETX 5' --group hall --json\n"
                                      "  tessctl fleet send 's3.ENC GETX' d1 d2\n",
                                      [this]() -> ExitStatus { becomeFleetProgram("send", fleet_, fleetLine_); });
        send.add_flag("--all", fleet_.all, "All devices");
        addText(send, "LINE", fleetLine_, "The command line")->required();
        addWords(send, "DEVICE", fleet_.devices, "Names of devices");
        CLI::App& status = fleetCommand(fleet, "status", "Show which devices there are",
                                        "  tessctl fleet status\n  tessctl fleet status --group hall\n",
                                        [this]() -> ExitStatus { becomeFleetProgram("status", fleet_, ""); });
        addWords(status, "DEVICE", fleet_.devices, "Names of devices (all of them)");
    }

    void addHelp()
    {
        CLI::App& help =
            command("help", "Show the help of a command", "  tessctl help send\n", [this] { return runHelp(); });
        help.add_option("COMMAND", helped_, "The command")->type_name("");
    }

    ExitStatus runHelp() const
    {
        const auto named =
            app_.get_subcommands([this](const CLI::App* command) { return command->get_name() == helped_; });
        if (named.empty() && !helped_.empty()) throw CtlError(STATUS_WRONG_USAGE, unknownCommand(app_, helped_));
        const CLI::App* const app = named.empty() ? &app_ : named.front();
        const std::string name = named.empty() ? app_.get_name() : app_.get_name() + " " + helped_;
        std::cout << app->get_formatter()->make_help(app, name, CLI::AppFormatMode::Normal);
        requireOutput();
        return STATUS_DONE;
    }

    CLI::App app_{"Talks to tessd, the command-listener daemon.", "tessctl"};
    Runner run_;
    SendOptions send_;
    ServeOptions serve_;
    ListenOptions listen_;
    std::string host_;
    std::string helped_;
    std::vector<std::string> checked_ = allChecks();
    std::string pinged_ = "ipc";
    std::string com2Text_;
    std::string reinitHost_;
    LocalPort consolePort_ = LocalPort::ipc;
    FleetOptions fleet_;
    std::string fleetLine_;
    WatchOptions watch_;
    TopOptions top_;
    bool json_ = false;
    bool namesOnly_ = false;
    bool telnetOnly_ = false;
    bool noNewline_ = false;
    bool yes_ = false;
};

} // namespace

int main(int argc, char** argv)
try {
    logMgr.setLogParameters(128, 6, "    [tessctl]", 4);
    keepStandardDescriptors();
    return CommandLine().run(argc, argv);
} catch (const CtlError& error) {
    say(error.what());
    return error.status();
} catch (const std::exception& error) {
    say(error.what());
    return STATUS_NO_CONNECTION;
}
