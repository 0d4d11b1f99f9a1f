#include "tools/tessctl/watch.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "framework/tess_messages.h"
#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/item_json.h"
#include "tools/tessctl/process_names.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/standard_output.h"
#include "tools/tessctl/status_query.h"
#include "tools/tessctl/watch_filter.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds BETWEEN_RENEWALS{5};
constexpr std::chrono::seconds BETWEEN_LOOKS{1}; // while tessd is away
const std::string ON(1, '\1');
const std::string OFF(1, '\0');

/// Watches, also when tessd is started anew: it asks again and again.
class Watch {
public:
    explicit Watch(const WatchOptions& options)
        : options_(options), filter_(options.name, options.port),
          colour_(::isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr)
    {
        const std::vector<Item> status = askStatus(daemon_);
        filter_.learn(status);
        names_.learn(status);
    }

    ExitStatus run()
    {
        TOrbAttachmentMsg record;
        while (!isOver()) {
            if (Clock::now() >= nextRenewal_) renew();
            if (daemon_.receive(record) > 0) take(record);
        }
        end();
        if (error_ != 0 && error_ != EPIPE) failOutput(error_);
        return STATUS_DONE;
    }

private:
    bool isOver() const
    {
        const bool isEnough = options_.count > 0 && shown_ >= options_.count;
        return stopAsked() || isEnough || error_ != 0 || outputIsUnread();
    }

    void renew()
    try {
        daemon_.send(MSG_WATCH, 0, 0, ON);
        nextRenewal_ = Clock::now() + BETWEEN_RENEWALS;
    } catch (const CtlError& error) {
        if (!isOn_) throw;
        if (!isAway_) say(std::string(error.what()) + " It is waited for.");
        isAway_ = true;
        nextRenewal_ = Clock::now() + BETWEEN_LOOKS;
    }

    void end()
    try {
        daemon_.send(MSG_WATCH, 0, 0, OFF);
    } catch (const CtlError&) { // then it does not tell us anything either
    }

    void take(const TOrbAttachmentMsg& record)
    {
        if (record.sender != TESS_QUEUE_ID || record.kind != MSG_WATCH_TEXT) return;
        for (const Item& event : parseItems(textOf(record)))
            show(event);
        error_ = flushOutput();
    }

    void show(const Item& event)
    {
        if (event.word() == "watch") return answered(event);
        names_.see(event);
        if (isOver() || !filter_.wants(event)) return;
        ++shown_;
        std::cout << (options_.json ? json(event) : eventText(event, names_, colour_)) << '\n';
    }

    void answered(const Item& answer)
    {
        if (answer.number("full") != 0)
            throw CtlError(STATUS_REFUSED, "tessd has as many watchers as it takes: end another 'tessctl watch'");
        if (!isOn_ || isAway_) say("watching");
        isOn_ = true;
        isAway_ = false;
    }

    static std::string json(const Item& event)
    {
        nlohmann::ordered_json object{{"event", event.word()}};
        object.update(jsonOf(event));
        return jsonText(object, -1);
    }

    WatchOptions options_;
    DaemonClient daemon_;
    WatchFilter filter_;
    ProcessNames names_;
    bool colour_;
    bool isOn_ = false;
    bool isAway_ = false; ///< tessd, when we have asked last
    Clock::time_point nextRenewal_ = Clock::now();
    std::uint64_t shown_ = 0;
    int error_ = 0;
};

} // namespace

ExitStatus runWatch(const WatchOptions& options)
{
    return Watch(options).run();
}
