#include "tools/tessctl/fleet.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <random>
#include <set>
#include <unistd.h>

#include "common/instant.h"
#include "tools/tess-mqtt/broker_settings.h"
#include "tools/tess-mqtt/mqtt_client.h"
#include "tools/tess-mqtt/topics.h"
#include "tools/tessctl/command_line.h"
#include "tools/tessctl/fleet_answers.h"
#include "tools/tessctl/fleet_view.h"
#include "tools/tessctl/item_json.h"
#include "tools/tessctl/seconds_text.h"
#include "tools/tessctl/standard_output.h"
#include "tools/tessctl/terminal_size.h"

namespace {

using std::chrono::milliseconds;

constexpr const char* SYSTEM_FILE = "/etc/tess/fleet.conf";
constexpr milliseconds QUIET{300};    // then a broker of several parts has sent all that it keeps
constexpr milliseconds BETWEEN{1000}; // attempts to reach the broker again
constexpr milliseconds LONGEST_STEP{1000};
constexpr const char* MARK = "tessctl-mark";

volatile std::sig_atomic_t isInterrupted = 0;

extern "C" void noteInterrupt(int)
{
    isInterrupted = 1;
}

/// The first SIGINT ends the waiting, so that what has been done is told; the second one ends all.
void endByInterrupt()
{
    struct sigaction action {};
    action.sa_handler = noteInterrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    (void)::sigaction(SIGINT, &action, nullptr); // it exists
}

/// A file of a bridge will do, too: what only a bridge has a use for is passed over.
BrokerSettings brokerSettings(const std::string& file)
{
    BrokerSettings settings;
    SettingsTable table;
    for (const char* key : {"device", "groups", "filter", "events", "timeout", "in_flight", "answer_keep", "window",
                            "metrics", "longest_pause"})
        table.add(key, [](const std::string&) { return std::string(); });
    addBrokerSettings(table, settings);
    try {
        table.read(settingsFileText(file), file);
    } catch (const SettingsError& error) {
        throw CtlError(STATUS_WRONG_USAGE, std::string(error.what()) +
                                               ": 'fleet' wants a file that says how the broker "
                                               "is reached, see --config");
    }
    const std::string problem = brokerProblem(settings);
    if (!problem.empty()) throw CtlError(STATUS_WRONG_USAGE, file + ": " + problem);
    return settings;
}

std::string randomName()
{
    std::random_device dice;
    std::string name;
    for (int i = 0; i < 16; ++i)
        name += "0123456789abcdef"[dice() % 16];
    return name;
}

/// A conversation with the broker, until everything that is wanted is there or the time is over.
class Fleet {
public:
    explicit Fleet(const FleetOptions& options)
        : options_(options), broker_(brokerSettings(options.settings.empty() ? fleetSettingsFile() : options.settings)),
          name_(randomName()), answerTopic_(answerBranch(broker_.root) + name_),
          client_(broker_, "tessctl-" + name_, {broker_.root + "/+/status", answerTopic_}, handlers())
    {
        client_.wantRetained();
    }

    /// Finds out which devices there are.
    std::vector<DeviceState> look()
    {
        const Instant end = instantNow() + options_.wait;
        runUntil(end, [this] { return marked_ && instantNow() >= quietEnd_; });
        if (!marked_)
            throw CtlError(STATUS_NO_CONNECTION, place() + ": no answer within " + secondsText(options_.wait) +
                                                     (trouble_.empty() ? "" : ": " + trouble_));
        std::vector<DeviceState> states;
        for (const auto& [device, state] : states_)
            if (isMeant(state)) states.push_back(state);
        for (const std::string& device : std::set(options_.devices.begin(), options_.devices.end()))
            if (!states_.contains(device)) states.push_back({.device = device, .isKnown = false});
        return states;
    }

    std::vector<FleetAnswer> send(const std::string& line)
    {
        line_ = line;
        const std::vector<DeviceState> states = look();
        if (states.empty()) throw CtlError(STATUS_NO_ANSWER, nobodyText());
        answers_ = FleetAnswers(states);
        sendEnd_ = instantNow() + options_.wait;
        endByInterrupt();
        sendAgain();
        runUntil(sendEnd_, [this] { return answers_.missing().empty() || isInterrupted != 0; });
        showProgress("");
        return answers_.rows();
    }

private:
    MqttClient::Handlers handlers()
    {
        return {
            .onConnected =
                [this] {
                    trouble_.clear();
                    (void)client_.publish({.topic = answerTopic_, .payload = MARK}, 1);
                    sendAgain();
                },
            .onMessage = [this](const Publication& publication) { take(publication); },
            .onNotSubscribed =
                [this](const std::string& topic) { refused_ = "the broker does not let you subscribe to " + topic; },
        };
    }

    std::string place() const { return broker_.host + ":" + std::to_string(broker_.portOrDefault()); }

    void take(const Publication& publication)
    {
        if (publication.topic != answerTopic_) {
            const auto state = deviceState(publication.payload);
            const bool isItsOwn = state && publication.topic == statusTopic(broker_.root, state->device);
            if (isItsOwn) states_[state->device] = *state;
            quietEnd_ = instantNow() + QUIET;
        } else if (publication.payload == MARK && publication.user.empty()) {
            marked_ = true;
            quietEnd_ = instantNow() + QUIET;
        } else if (publication.correlation == name_) {
            takeAnswer(publication);
        }
    }

    void takeAnswer(const Publication& publication)
    {
        answers_.take({userProperty(publication, "device"), userProperty(publication, "status"),
                       userProperty(publication, "ms"), publication.payload});
        const std::size_t have = answers_.expected() - answers_.missing().size();
        showProgress(std::to_string(have) + " of " + std::to_string(answers_.expected()) + " have answered");
    }

    /// In a line of its own at the terminal, which the next one takes.
    static void showProgress(const std::string& text)
    {
        if (::isatty(STDERR_FILENO) != 0) std::cerr << "\r\x1B[K" + text << std::flush;
    }

    bool isMeant(const DeviceState& state) const
    {
        if (!options_.devices.empty())
            return std::ranges::find(options_.devices, state.device) != options_.devices.end();
        return options_.group.empty() || std::ranges::find(state.groups, options_.group) != state.groups.end();
    }

    std::string nobodyText() const
    {
        if (options_.group.empty()) return place() + ": no device has ever been seen there";
        return "no device of the group '" + options_.group + "' has been seen: 'tessctl fleet status' names them all";
    }

    /// Also when the broker was away meanwhile: whoever has carried it out answers once more, and
    /// does not do it again.
    void sendAgain()
    {
        if (answers_.missing().empty()) return;
        for (const std::string& topic : topics()) {
            Publication request{.topic = topic, .payload = line_, .responseTopic = answerTopic_, .correlation = name_};
            const auto left = std::chrono::ceil<std::chrono::seconds>(sendEnd_ - instantNow());
            request.expiry = static_cast<std::uint32_t>(std::max<std::int64_t>(left.count(), 1));
            (void)client_.publish(request, 1);
        }
    }

    std::vector<std::string> topics() const
    {
        if (options_.all) return {allTopic(broker_.root)};
        if (!options_.group.empty()) return {groupTopic(broker_.root, options_.group)};
        std::vector<std::string> topics;
        for (const std::string& device : answers_.missing())
            topics.push_back(deviceTopic(broker_.root, device));
        return topics;
    }

    template <class Fact> void runUntil(Instant end, Fact fact)
    {
        while (!fact() && instantNow() < end) {
            if (!refused_.empty()) throw CtlError(STATUS_NO_CONNECTION, place() + ": " + refused_);
            step(std::min(end, quietEnd_ > instantNow() ? quietEnd_ : end));
        }
    }

    void step(Instant end)
    {
        const Instant now = instantNow();
        if (client_.fd() < 0 && now >= nextTry_) {
            note(client_.connect());
            nextTry_ = now + BETWEEN;
        }
        const auto left = std::chrono::ceil<milliseconds>(end - now);
        const auto pause = std::clamp(client_.fd() < 0 ? std::min(left, BETWEEN) : left, milliseconds(1), LONGEST_STEP);
        pollfd wait{client_.fd(), static_cast<short>(client_.wantsWrite() ? POLLIN | POLLOUT : POLLIN), 0};
        if (::poll(&wait, 1, static_cast<int>(pause.count())) > 0) note(client_.onReady(wait.revents));
        note(client_.onTime());
    }

    void note(const std::string& whyEnded)
    {
        if (!whyEnded.empty()) trouble_ = whyEnded;
    }

    const FleetOptions& options_;
    BrokerSettings broker_;
    std::string name_; ///< also the correlation data: whatever is sent again is the same request
    std::string answerTopic_;
    MqttClient client_;
    std::string line_;
    std::string trouble_;
    std::string refused_;
    bool marked_ = false; ///< what the broker keeps has come before the mark
    Instant quietEnd_ = AT_ONCE;
    Instant nextTry_ = AT_ONCE;
    std::map<std::string, DeviceState> states_;
    Instant sendEnd_ = AT_ONCE; ///< until when answers are waited for
    FleetAnswers answers_{{}};
};

void print(const std::vector<std::string>& lines)
{
    for (const std::string& line : lines)
        std::cout << line << '\n';
    requireOutput();
}

} // namespace

std::string fleetSettingsFile()
{
    const char* const named = std::getenv("TESS_FLEET");
    if (named != nullptr && *named != '\0') return named;
    const char* const home = std::getenv("HOME");
    const std::string own = home == nullptr ? "" : std::string(home) + "/.config/tess/fleet.conf";
    std::error_code ignored;
    return !own.empty() && std::filesystem::exists(own, ignored) ? own : SYSTEM_FILE;
}

ExitStatus runFleetSend(const FleetOptions& options, const std::string& line)
{
    const int ways = (options.all ? 1 : 0) + (options.group.empty() ? 0 : 1) + (options.devices.empty() ? 0 : 1);
    if (ways != 1)
        throw CtlError(STATUS_WRONG_USAGE, "fleet send wants one of --all, --group GROUP, and names of devices");
    if (const std::string problem = lineProblem(line); !problem.empty()) throw CtlError(STATUS_WRONG_USAGE, problem);
    const std::vector<FleetAnswer> answers = Fleet(options).send(line);
    print(options.json ? std::vector{jsonText(fleetJson(answers), 2)} : fleetLines(answers, terminalSize().columns));
    if (!options.json) std::cerr << fleetSummary(answers) + '\n';
    return fleetStatus(answers);
}

ExitStatus runFleetStatus(const FleetOptions& options)
{
    const std::vector<DeviceState> states = Fleet(options).look();
    print(options.json ? std::vector{jsonText(stateJson(states), 2)} : stateLines(states, terminalSize().columns));
    const bool isGood = !states.empty() && std::ranges::all_of(states, &DeviceState::online);
    return isGood ? STATUS_DONE : STATUS_NO_ANSWER;
}
