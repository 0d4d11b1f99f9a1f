#include "tools/tessctl/top.h"

#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <unistd.h>

#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/full_screen.h"
#include "tools/tessctl/item_json.h"
#include "tools/tessctl/standard_output.h"
#include "tools/tessctl/status_query.h"
#include "tools/tessctl/top_view.h"

namespace {

Sample takeSample(DaemonClient& daemon)
{
    std::vector<Item> items = askStatus(daemon);
    return {std::chrono::steady_clock::now(), std::move(items)};
}

ExitStatus runOnTerminal(const TopOptions& options)
{
    DaemonClient daemon;
    Sample before = takeSample(daemon);
    Sample now = before;
    const FullScreen screen;
    for (std::uint64_t shown = 1;; ++shown) {
        FullScreen::Seen seen = FullScreen::Seen::resize;
        while (seen == FullScreen::Seen::resize) {
            screen.show(topLines(before, now, screen.columns(), screen.rows()));
            if (shown == options.count) return STATUS_DONE;
            seen = screen.wait(options.interval);
        }
        if (seen == FullScreen::Seen::leave || stopAsked()) return STATUS_DONE;
        before = std::move(now);
        now = takeSample(daemon);
    }
}

ExitStatus runPlain(const TopOptions& options)
{
    DaemonClient daemon;
    Sample before = takeSample(daemon);
    for (std::uint64_t shown = 1; !stopAsked(); ++shown) {
        std::this_thread::sleep_for(options.interval); // a signal ends it
        Sample now = takeSample(daemon);
        if (options.json)
            std::cout << jsonText(topJson(before, now), -1) << '\n';
        else
            for (const std::string& line : topLines(before, now, 0, 0))
                std::cout << line << '\n';
        requireOutput();
        if (shown == options.count) break;
        before = std::move(now);
    }
    return STATUS_DONE;
}

} // namespace

ExitStatus runTop(TopOptions options)
{
    const bool isTerminal = ::isatty(STDOUT_FILENO) != 0 && !options.json;
    if (isTerminal) return runOnTerminal(options);
    if (!options.json && options.count == 0) options.count = 1;
    return runPlain(options);
}
