#include "tools/tess-mqtt/bridge.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/signalfd.h>
#include <utility>

#include "framework/service_manager.h"
#include "tools/tess-mqtt/fence.h"
#include "tools/tess-mqtt/mqtt_log.h"
#include "tools/tessctl/item_json.h"
#include "tools/tessctl/status_query.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds FIRST_PAUSE{500};
constexpr seconds LONGEST_LINK_PAUSE{10};
constexpr seconds ATTEMPT{8}; // TCP tries at 0, 1, 3 and 7 s
constexpr seconds STEADY{10}; // a connection that lasts so long is none that is ended again and again
constexpr std::size_t MOST_ANSWERS = 1024;
constexpr seconds BETWEEN_WISHES{5}; // to watch: tessd forgets when it ends
constexpr seconds BETWEEN_LOST{1};   // lines of the log
constexpr seconds STATE_INTERVAL{60};
constexpr seconds GOOD_BYE{1};
constexpr long LONGEST_WATCH = 3600;
constexpr long LEAST_EXPIRY = 30; // seconds in which who has asked may be slow to take an answer from the broker
/// Processes register again within ten seconds of tessd's start.
constexpr seconds EARLY_ASKS[] = {seconds(2), seconds(10)};

/// Goes on while the device sleeps.
std::int64_t secondsSinceStart()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_BOOTTIME, &now); // it exists
    return now.tv_sec;
}

Fd signalDescriptor()
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGTERM);
    ::sigaddset(&set, SIGINT);
    (void)::sigprocmask(SIG_BLOCK, &set, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN);
    return Fd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

int pollTimeout(Instant due)
{
    if (due == NEVER) return -1;
    const Instant now = instantNow();
    if (due <= now) return 0;
    const auto left = std::chrono::ceil<milliseconds>(due - now);
    return static_cast<int>(std::min<std::int64_t>(left.count(), 3'600'000));
}

std::vector<std::string> subscriptionsOf(const Topics& topics, EventMode mode)
{
    std::vector<std::string> all = topics.commands();
    if (mode == EventMode::asked) all.push_back(topics.watch());
    return all;
}

/// What is sent in place of an answer that the broker does not take.
Publication tooLong(const Publication& answer)
{
    Publication instead = answer;
    instead.payload = "Error: it was carried out, but the broker takes no answer of " +
                      std::to_string(answer.payload.size()) + " bytes";
    for (auto& [name, value] : instead.user)
        if (name == "status") value = wordOf(ReplyStatus::timeout);
    return instead;
}

/// Of a request with correlation data.
RecentRequests::Key keyOf(const Request& request)
{
    return {request.responseTopic, *request.correlation, request.line};
}

} // namespace

/// What its parts call back.
struct Bridge::Handlers {
    static CommandRunner::Send send(Bridge& bridge)
    {
        return [&bridge](const std::string& bytes) { bridge.link_.send(bytes); };
    }

    static CommandRunner::Done done(Bridge& bridge)
    {
        return
            [&bridge](const Request& request, const Reply& reply, bool begun) { bridge.onDone(request, reply, begun); };
    }

    static MqttClient::Handlers client(Bridge& bridge)
    {
        return {
            .onConnected = [&bridge] { bridge.onBrokerConnected(); },
            .onMessage = [&bridge](const Publication& publication) { bridge.onPublication(publication); },
            .onAcknowledged = [&bridge](int number) { bridge.outbox_.onAcknowledged(number); },
            .onNotSubscribed = [](const std::string& topic) { logMessage(mqtt_log::notSubscribed, topic.c_str()); },
        };
    }
};

Bridge::Bridge(BridgeSettings settings, std::string version, const std::string& windowFile)
    : settings_(std::move(settings)), version_(std::move(version)),
      topics_(settings_.broker.root, settings_.device, settings_.groups), recent_(settings_.window, windowFile),
      runner_({.most = static_cast<std::size_t>(settings_.mostInFlight), .timeout = seconds(settings_.timeout)},
              Handlers::send(*this), Handlers::done(*this)),
      outbox_(seconds(settings_.answerKeep), MOST_ANSWERS),
      client_(settings_.broker, "tess-" + settings_.device, subscriptionsOf(topics_, settings_.events),
              Handlers::client(*this)),
      signals_(signalDescriptor()), brokerPause_(FIRST_PAUSE, seconds(settings_.longestPause)),
      linkPause_(FIRST_PAUSE, LONGEST_LINK_PAUSE)
{
    if (!windowFile.empty() && !recent_.isKept()) logMessage(mqtt_log::windowNotKept, windowFile.c_str());
    client_.setWill(topics_.status(), offlineText(topics_));
    if (settings_.events == EventMode::always) watchEnd_ = NEVER;
}

void Bridge::run()
{
    const std::string broker = settings_.broker.host + ":" + std::to_string(settings_.broker.portOrDefault());
    logMessage(mqtt_log::started, settings_.device.c_str(), broker.c_str());
    const std::string status = "bridge of device " + settings_.device + " to broker " + broker;
    setServiceStatus(status.c_str());
    logMgr.initAfterDaemonize();
    while (!stopped_)
        step();
    sayOffline();
    logMessage(mqtt_log::ended);
}

void Bridge::step()
{
    onDue(instantNow());
    std::array<pollfd, 4> waits{
        {{signals_.get(), POLLIN, 0}, {client_.fd(), POLLIN, 0}, {link_.fd(), POLLIN, 0}, {queue_.fd(), POLLIN, 0}}};
    if (client_.wantsWrite()) waits[1].events |= POLLOUT;
    if (link_.wantsWrite()) waits[2].events |= POLLOUT;
    if (::poll(waits.data(), waits.size(), pollTimeout(nextDue())) <= 0) return;
    const Instant now = instantNow();
    stopped_ = waits[0].revents != 0;
    // tessd first: what it has answered is not to be taken for late.
    if (waits[2].revents != 0) onLinkReady(waits[2].revents, now);
    if (waits[3].revents != 0)
        queue_.receive([this](const std::vector<Item>& items) { onState(items); },
                       [this](const Item& event) { onEvent(event); });
    if (waits[1].revents != 0) onBrokerReady(waits[1].revents, now);
}

Instant Bridge::nextDue() const
{
    return std::min({brokerDue_, attemptEnd_, aliveDue_, linkDue_, askDue_, watchDue_, presenceDue_, runner_.due(),
                     client_.isConnected() ? NEVER : outbox_.due()});
}

void Bridge::onDue(Instant now)
{
    if (linkDue_ <= now) (void)openLink(now);
    if (runner_.due() <= now) runner_.onTime(now);
    if (runner_.wantsNewConnection(now)) renewLink(now);
    if (askDue_ <= now) askState(now);
    if (watchDue_ <= now) renewWatch(now);
    if (presenceDue_ <= now) {
        // A cluster may publish the will of the connection before this one late.
        presenceDue_ = NEVER;
        publishPresence(presence_);
    }
    if (!client_.isConnected() && outbox_.due() <= now) countLost(outbox_.expire(now));
    if (attemptEnd_ <= now) {
        client_.drop();
        checkBroker("no answer from it", now);
    }
    if (brokerDue_ <= now) connectBroker();
    if (aliveDue_ <= now) {
        aliveDue_ = now + milliseconds(settings_.broker.keepAlive * 250);
        checkBroker(client_.onTime(), now);
    }
}

// The broker

void Bridge::connectBroker()
{
    brokerDue_ = NEVER;
    const std::string problem = client_.connect();
    const Instant begun = instantNow(); // looking up the name may have taken longer than an attempt may
    attemptEnd_ = begun + ATTEMPT;
    checkBroker(problem, begun);
}

/// @param whyEnded  why there is no connection any more; empty: there is, or one is being made
void Bridge::checkBroker(const std::string& whyEnded, Instant now)
{
    if (whyEnded.empty()) return;
    if (whyEnded != lastTrouble_) logMessage(mqtt_log::lost, whyEnded.c_str());
    lastTrouble_ = whyEnded;
    outbox_.onDown();
    if (connectedSince_ <= now && now - connectedSince_ >= STEADY) brokerPause_.reset();
    connectedSince_ = NEVER;
    attemptEnd_ = aliveDue_ = askDue_ = watchDue_ = presenceDue_ = NEVER;
    brokerDue_ = now + brokerPause_.next(std::uniform_real_distribution<>(0, 1)(dice_));
}

void Bridge::onBrokerConnected()
{
    logMessage(mqtt_log::connected, settings_.broker.host.c_str());
    lastTrouble_.clear();
    attemptEnd_ = NEVER;
    const Instant now = instantNow();
    connectedSince_ = now;
    aliveDue_ = now + milliseconds(settings_.broker.keepAlive * 250);
    askDue_ = now;
    metricsDue_ = settings_.metrics > 0 ? now : NEVER;
    watchDue_ = watchEnd_ == AT_ONCE ? NEVER : now; // also when it is over: tessd does not know that yet
    publishPresence(presence_);
    presenceDue_ = now + seconds(2 * settings_.broker.keepAlive);
    sendAnswers();
}

void Bridge::sendAnswers()
{
    const auto publish = [this](const Publication& answer) {
        const std::optional<int> number = client_.publish(answer, 1);
        return number == 0 ? client_.publish(tooLong(answer), 1) : number;
    };
    countLost(outbox_.send(publish));
}

void Bridge::onBrokerReady(short events, Instant now)
{
    checkBroker(client_.onReady(events), now);
    sendAnswers(); // what was acknowledged has made room, for all of it once
}

void Bridge::countLost(std::size_t answers)
{
    if (answers == 0) return;
    const Instant now = instantNow();
    counts_.lost += answers;
    if (now < lostDue_) return;
    lostDue_ = now + BETWEEN_LOST;
    logMessage(mqtt_log::answersLost, counts_.lost);
}

void Bridge::onPublication(const Publication& publication)
{
    const Instant now = instantNow();
    const bool isWish = settings_.events == EventMode::asked && publication.topic == topics_.watch();
    if (isWish) return onWatchWish(publication, now);
    Judgement judgement = judge(publication, topics_, settings_.filter, now);
    if (judgement.whyIgnored != nullptr) {
        if (counts_.ignored++ == 0) logMessage(mqtt_log::ignored, judgement.whyIgnored);
        return;
    }
    if (judgement.refusal) return answer(*judgement.request, *judgement.refusal);
    if (!isKnown(*judgement.request)) run(std::move(*judgement.request));
}

void Bridge::sayOffline()
{
    const Instant now = instantNow();
    runner_.onDown(now, false);
    if (client_.isConnected()) {
        (void)client_.publish({.topic = topics_.status(), .payload = offlineText(topics_), .retained = true}, 1);
        const Instant end = now + GOOD_BYE;
        while (client_.isConnected() && (client_.wantsWrite() || outbox_.size() > 0) && instantNow() < end) {
            pollfd wait{client_.fd(), static_cast<short>(client_.wantsWrite() ? POLLIN | POLLOUT : POLLIN), 0};
            if (::poll(&wait, 1, pollTimeout(end)) > 0) onBrokerReady(wait.revents, now);
        }
    }
    client_.disconnect();
}

// Requests

bool Bridge::isKnown(const Request& request)
{
    using Known = RecentRequests::Known;
    if (!request.correlation) return false;
    const Known known = recent_.find(keyOf(request), secondsSinceStart());
    if (known != Known::no) ++counts_.again;
    if (known == Known::answered) answer(request, recent_.reply(keyOf(request)));
    if (known == Known::answerLost)
        answer(request, {ReplyStatus::timeout, "Error: it was taken before, and its answer is not known any more"});
    return known != Known::no;
}

void Bridge::run(Request request)
{
    const Instant now = instantNow();
    if (request.correlation) recent_.begin(keyOf(request), secondsSinceStart());
    if (!link_.isOpen()) (void)openLink(now);
    runner_.take(std::move(request), now);
    if (runner_.wantsNewConnection(now)) renewLink(now);
}

void Bridge::onDone(const Request& request, const Reply& reply, bool begun)
{
    if (request.correlation) {
        if (begun)
            recent_.finish(keyOf(request), reply);
        else
            recent_.forget(keyOf(request));
    }
    answer(request, reply);
}

void Bridge::count(ReplyStatus status)
{
    if (status == ReplyStatus::answered) ++counts_.answered;
    if (status == ReplyStatus::refused) ++counts_.refused;
    if (status == ReplyStatus::timeout) ++counts_.timeout;
    if (status == ReplyStatus::busy) ++counts_.busy;
}

void Bridge::answer(const Request& request, const Reply& reply)
{
    count(reply.status);
    const Instant now = instantNow();
    const auto took = std::chrono::round<milliseconds>(now - request.arrived);
    Publication publication{.topic = request.responseTopic, .payload = reply.text};
    publication.correlation = request.correlation;
    publication.expiry = static_cast<std::uint32_t>(std::max(settings_.answerKeep, LEAST_EXPIRY));
    publication.user = {
        {"status", wordOf(reply.status)}, {"ms", std::to_string(took.count())}, {"device", settings_.device}};
    countLost(outbox_.add(std::move(publication), now));
    sendAnswers();
}

// tessd

bool Bridge::openLink(Instant now)
{
    if (!link_.open()) {
        const std::string why = std::strerror(errno);
        if (why != lastAway_) logMessage(mqtt_log::daemonAway, why.c_str());
        lastAway_ = why;
        linkDue_ = now + linkPause_.next(std::uniform_real_distribution<>(0, 1)(dice_));
        return false;
    }
    logMessage(mqtt_log::daemonThere);
    lastAway_.clear();
    linkDue_ = NEVER;
    linkSince_ = now;
    earlyAsks_ = 0;
    queue_.close(); // its file may be gone with the directory, which only this one would not notice
    if (client_.isConnected()) askDue_ = now;
    runner_.onUp(now);
    return true;
}

void Bridge::onLinkReady(short events, Instant now)
{
    if ((events & POLLOUT) != 0) link_.flush();
    if ((events & ~POLLOUT) == 0) return;
    const bool isThere = link_.receive([this, now](const XcpFrame& frame) { runner_.onFrame(frame, now); });
    if (!isThere) closeLink("it has closed the connection: has it ended, or are ten others connected?", now);
}

void Bridge::closeLink(const char* why, Instant now)
{
    link_.close();
    if (lastAway_ != why) logMessage(mqtt_log::daemonAway, why);
    lastAway_ = why;
    if (now - linkSince_ >= STEADY) linkPause_.reset();
    runner_.onDown(now, false);
    linkDue_ = now + linkPause_.next(std::uniform_real_distribution<>(0, 1)(dice_));
    if (presence_ != Presence{}) publishPresence({});
}

/// The connection has become old, or tessd does not answer over it.
void Bridge::renewLink(Instant now)
{
    runner_.onDown(now, true);
    if (link_.open()) return runner_.onUp(now);
    closeLink(std::strerror(errno), now);
}

void Bridge::askState(Instant now)
{
    const bool isEarly = static_cast<std::size_t>(earlyAsks_) < std::size(EARLY_ASKS);
    askDue_ = now + (isEarly ? EARLY_ASKS[earlyAsks_++] : STATE_INTERVAL);
    askDue_ = std::min(askDue_, metricsDue_ > now ? metricsDue_ : now + seconds(settings_.metrics));
    if (!link_.isOpen()) return publishMetrics({});
    const std::string problem = queue_.fd() < 0 ? queue_.open() : "";
    if (!problem.empty() && problem != lastNoQueue_) logMessage(mqtt_log::noQueue, problem.c_str());
    lastNoQueue_ = problem;
    (void)queue_.ask(); // when tessd has no room for it, the next time will do
}

void Bridge::onState(const std::vector<Item>& items)
{
    Presence presence;
    for (const Item& item : items) {
        if (item.word() == "daemon") presence.version = item.text("version");
        if (item.word() == "process") presence.names.push_back(item.text("name"));
    }
    std::ranges::sort(presence.names);
    if (presence != presence_) publishPresence(std::move(presence));
    if (!presence_.version.empty()) publishMetrics(items);
}

void Bridge::publishPresence(Presence presence)
{
    presence_ = std::move(presence);
    (void)client_.publish(
        {.topic = topics_.status(), .payload = onlineText(topics_, presence_, version_), .retained = true}, 1);
}

void Bridge::publishMetrics(const std::vector<Item>& items)
{
    const Instant now = instantNow();
    if (now < metricsDue_) return;
    metricsDue_ = std::max(metricsDue_ + seconds(settings_.metrics), now);
    counts_.strays = runner_.strays();
    counts_.inFlight = runner_.inFlight();
    (void)client_.publish({.topic = topics_.metrics(), .payload = bridgeMetrics(items, counts_)}, 0);
}

/// @param wish  seconds for which events are wanted from now on; 0: no longer
void Bridge::onWatchWish(const Publication& wish, Instant now)
{
    long wanted = 0;
    const char* const end = wish.payload.data() + wish.payload.size();
    const auto [stopped, error] = std::from_chars(wish.payload.data(), end, wanted);
    if (wish.retained || error != std::errc() || stopped != end || wanted < 0) return;
    watchEnd_ = now + seconds(std::min(wanted, LONGEST_WATCH));
    watchDue_ = now;
}

void Bridge::renewWatch(Instant now)
{
    const bool isWanted = now < watchEnd_;
    watchDue_ = isWanted ? std::min<Instant>(now + BETWEEN_WISHES, watchEnd_) : NEVER;
    if (queue_.fd() < 0) (void)queue_.open();
    (void)queue_.watch(isWanted); // asked again soon, or tessd finds nobody at the next event
}

/// A fence's line, and behind it the refusals of its commands.
bool Bridge::isOfFence(const Item& event)
{
    const std::string text = event.text("text");
    if (event.word() == "line") {
        const bool isOne = event.text("port") == "xcp" && isFence(text);
        refusalsOfFence_ = isOne ? std::ranges::count(text, '|') : 0;
        return isOne;
    }
    return event.word() == "refuse" && refusalsOfFence_-- > 0;
}

void Bridge::onEvent(const Item& event)
{
    if (event.word() == "watch" || isOfFence(event) || instantNow() >= watchEnd_) return; // the first answers the wish
    nlohmann::ordered_json object{{"event", event.word()}};
    object.update(jsonOf(event));
    if (client_.wantsWrite() || !client_.publish({.topic = topics_.event(), .payload = jsonText(object, -1)}, 0))
        ++counts_.unsent;
}
