#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "common/instant.h"
#include "framework/fd.h"
#include "tools/tess-mqtt/bridge_metrics.h"
#include "tools/tess-mqtt/bridge_settings.h"
#include "tools/tess-mqtt/command_runner.h"
#include "tools/tess-mqtt/growing_pause.h"
#include "tools/tess-mqtt/mqtt_client.h"
#include "tools/tess-mqtt/outbox.h"
#include "tools/tess-mqtt/presence.h"
#include "tools/tess-mqtt/recent_requests.h"
#include "tools/tess-mqtt/state_queue.h"
#include "tools/tess-mqtt/topics.h"
#include "tools/tess-mqtt/xcp_link.h"

/// The bridge between a broker and tessd: one loop that waits for both, and for what is due.
/// Threads: one. One a process: SIGTERM and SIGINT are its own.
class Bridge {
public:
    /// @param version     of this program
    /// @param windowFile  where requests are noted that are not to be carried out again; empty:
    ///                    only in memory
    Bridge(BridgeSettings settings, std::string version, const std::string& windowFile);

    /// Until SIGTERM or SIGINT.
    void run();

private:
    struct Handlers;

    void step();
    Instant nextDue() const;
    void onDue(Instant now);

    // The broker
    void connectBroker();
    void checkBroker(const std::string& whyEnded, Instant now);
    void onBrokerConnected();
    void onPublication(const Publication& publication);
    void sendAnswers();
    void onBrokerReady(short events, Instant now);
    void countLost(std::size_t answers);
    void sayOffline();

    // Requests
    bool isKnown(const Request& request);
    void run(Request request);
    void onDone(const Request& request, const Reply& reply, bool begun);
    void answer(const Request& request, const Reply& reply);
    void count(ReplyStatus status);

    // tessd
    bool openLink(Instant now);
    void onLinkReady(short events, Instant now);
    void closeLink(const char* why, Instant now);
    void renewLink(Instant now);
    void askState(Instant now);
    void onState(const std::vector<Item>& items);
    void publishPresence(Presence presence);
    void publishMetrics(const std::vector<Item>& items);
    void onWatchWish(const Publication& wish, Instant now);
    void renewWatch(Instant now);
    bool isOfFence(const Item& event);
    void onEvent(const Item& event);

    BridgeSettings settings_;
    std::string version_;
    Topics topics_;
    RecentRequests recent_;
    XcpLink link_;
    CommandRunner runner_;
    Outbox outbox_;
    StateQueue queue_;
    MqttClient client_;
    Fd signals_;
    std::mt19937 dice_{std::random_device{}()};
    GrowingPause brokerPause_;
    GrowingPause linkPause_;
    BridgeCounts counts_;
    Presence presence_;
    std::string lastTrouble_;     ///< with the broker, as it was logged
    std::string lastAway_;        ///< the same of tessd
    std::string lastNoQueue_;     ///< and of the queue
    Instant brokerDue_ = AT_ONCE; ///< when to connect
    Instant attemptEnd_ = NEVER;  ///< when an attempt to connect has taken too long
    Instant connectedSince_ = NEVER;
    Instant aliveDue_ = NEVER;
    Instant presenceDue_ = NEVER; ///< when to say once more that the device is there
    Instant linkDue_ = AT_ONCE;
    Instant linkSince_{}; ///< when tessd was there again
    Instant askDue_ = NEVER;
    Instant metricsDue_ = NEVER;
    Instant watchEnd_ = AT_ONCE; ///< until when events are wanted
    Instant watchDue_ = NEVER;
    Instant lostDue_ = AT_ONCE;          ///< when the next loss may be logged
    std::ptrdiff_t refusalsOfFence_ = 0; ///< that are to come
    int earlyAsks_ = 0;                  ///< how often the state was asked for since tessd is there
    bool stopped_ = false;
};
