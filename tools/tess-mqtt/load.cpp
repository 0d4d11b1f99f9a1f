// Measures how fast requests are answered: over a broker, and by tessd alone. For scripts/fleet.
//
//   mqtt-load ask FILE TOPIC LINE COUNT WINDOW DEVICES  asks COUNT times, WINDOW at a time, each answered by DEVICES
//   mqtt-load echo FILE TOPIC                           answers each request with its payload, until it is killed
//   mqtt-load xcp LINE COUNT WINDOW                     asks tessd over /tmp/xcp
//
// FILE says how the broker is reached. What was measured is one JSON object.
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "common/instant.h"
#include "tools/tess-mqtt/broker_settings.h"
#include "tools/tess-mqtt/mqtt_client.h"
#include "tools/tess-mqtt/xcp_link.h"

namespace {

constexpr std::chrono::seconds PATIENCE{120};

BrokerSettings settingsOf(const std::string& file)
{
    BrokerSettings settings;
    SettingsTable table;
    addBrokerSettings(table, settings);
    table.read(settingsFileText(file), file);
    return settings;
}

/// Requests under way, and how long each took.
class Progress {
public:
    Progress(long count, long window, long answers) : count_(count), window_(window), answers_(answers) {}

    bool mayStart() const { return started_ < count_ && static_cast<long>(open_.size()) < window_; }
    bool isOver() const { return done_ == count_; }

    std::string start()
    {
        if (started_ == 0) begin_ = instantNow();
        std::string name = std::to_string(++started_);
        open_[name] = {instantNow(), answers_};
        return name;
    }

    void answered(const std::string& name)
    {
        const auto found = open_.find(name);
        if (found == open_.end() || --found->second.due > 0) return;
        took_.push_back(std::chrono::duration<double, std::milli>(instantNow() - found->second.start).count());
        open_.erase(found);
        ++done_;
    }

    void report()
    {
        const double seconds = std::chrono::duration<double>(instantNow() - begin_).count();
        std::ranges::sort(took_);
        const auto at = [this](double part) {
            return took_[static_cast<std::size_t>(part * static_cast<double>(took_.size() - 1))];
        };
        std::cout << "{\"count\": " << done_ << ", \"seconds\": " << seconds
                  << ", \"per_second\": " << static_cast<double>(done_) / seconds << ", \"median_ms\": " << at(0.5)
                  << ", \"p99_ms\": " << at(0.99) << ", \"most_ms\": " << took_.back() << "}\n";
    }

private:
    struct Open {
        Instant start;
        long due;
    };

    long count_;
    long window_;
    long answers_;
    long started_ = 0;
    long done_ = 0;
    Instant begin_{};
    std::map<std::string, Open> open_;
    std::vector<double> took_;
};

void waitFor(MqttClient& client)
{
    pollfd wait{client.fd(), static_cast<short>(client.wantsWrite() ? POLLIN | POLLOUT : POLLIN), 0};
    std::string trouble;
    if (::poll(&wait, 1, 1000) > 0)
        trouble = client.onReady(wait.revents);
    else
        trouble = client.onTime();
    if (!trouble.empty()) throw std::runtime_error(trouble);
}

void ask(const std::string& file, const std::string& topic, const std::string& line, Progress progress)
{
    const BrokerSettings settings = settingsOf(file);
    const std::string answers = settings.root + "/answer/load" + std::to_string(::getpid());
    const std::string run =
        std::to_string(instantNow().time_since_epoch().count()) + "-"; // no request of an earlier run
    std::string other;                                                 // than what a measurement is of
    MqttClient client(settings, "load" + std::to_string(::getpid()), {answers},
                      {.onMessage = [&](const Publication& answer) {
                          const std::string status = userProperty(answer, "status"); // an echo has none
                          if (!status.empty() && status != "answered") other = status + ": " + answer.payload;
                          const std::string name = answer.correlation.value_or("");
                          if (name.starts_with(run)) progress.answered(name.substr(run.size()));
                      }});
    if (const std::string trouble = client.connect(); !trouble.empty()) throw std::runtime_error(trouble);
    for (const Instant end = instantNow() + PATIENCE; !progress.isOver();) {
        while (client.isConnected() && progress.mayStart())
            (void)client.publish(
                {.topic = topic, .payload = line, .responseTopic = answers, .correlation = run + progress.start()}, 1);
        waitFor(client);
        if (!other.empty()) throw std::runtime_error(other);
        if (instantNow() > end) throw std::runtime_error("not all was answered");
    }
    progress.report();
}

void echo(const std::string& file, const std::string& topic)
{
    MqttClient* client = nullptr;
    const auto answer = [&client](const Publication& request) {
        (void)client->publish({.topic = request.responseTopic.value_or("nowhere"),
                               .payload = request.payload,
                               .correlation = request.correlation},
                              1);
    };
    MqttClient echoing(settingsOf(file), "echo" + std::to_string(::getpid()), {topic},
                       {.onConnected = [] { std::cout << "ready" << std::endl; }, .onMessage = answer});
    client = &echoing;
    if (const std::string trouble = echoing.connect(); !trouble.empty()) throw std::runtime_error(trouble);
    for (;;)
        waitFor(echoing);
}

void askDirectly(const std::string& line, Progress progress)
{
    XcpLink link;
    if (!link.open()) throw std::runtime_error("/tmp/xcp");
    for (const Instant end = instantNow() + PATIENCE; !progress.isOver();) {
        while (progress.mayStart())
            link.send(frameBytes(static_cast<std::uint16_t>(std::stol(progress.start())), line));
        pollfd wait{link.fd(), static_cast<short>(link.wantsWrite() ? POLLIN | POLLOUT : POLLIN), 0};
        (void)::poll(&wait, 1, 1000);
        link.flush();
        (void)link.receive([&](const XcpFrame& frame) { progress.answered(std::to_string(frame.tag)); });
        if (instantNow() > end) throw std::runtime_error("not all was answered");
    }
    progress.report();
}

} // namespace

int main(int argc, char** argv)
try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 7 && words[0] == "ask")
        ask(words[1], words[2], words[3], {std::stol(words[4]), std::stol(words[5]), std::stol(words[6])});
    else if (words.size() == 3 && words[0] == "echo")
        echo(words[1], words[2]);
    else if (words.size() == 4 && words[0] == "xcp" && std::stol(words[2]) < 65536)
        askDirectly(words[1], {std::stol(words[2]), std::stol(words[3]), 1});
    else
        throw std::runtime_error("ask, echo or xcp: the source says how");
    return EXIT_SUCCESS;
} catch (const std::exception& error) {
    std::cerr << "mqtt-load: " << error.what() << '\n';
    return EXIT_FAILURE;
}
