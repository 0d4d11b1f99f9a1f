// Whatever a broker delivers, with any topic, properties and payload: what is carried out is one
// line that may come, and its answer goes where answers may go. And what tessctl makes of a status.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/text.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tools/tess-mqtt/bridge_settings.h"
#include "tools/tess-mqtt/recent_requests.h"
#include "tools/tess-mqtt/request.h"
#include "tools/tessctl/fleet_view.h"

namespace {

const Topics TOPICS("tess", "d1", {"hall"});
constexpr Instant NOW{std::chrono::hours(1)};

Publication publicationOf(FuzzInput& input)
{
    constexpr const char* TOPIC_NAMES[] = {"tess/d1/command", "tess/all/command", "tess/group/hall/command",
                                           "tess/d2/command", "tess/d1/watch"};
    constexpr const char* ANSWER_TOPICS[] = {"tess/answer/a", "mine", "tess/d2/command", "tess"};
    Publication publication{.topic = input.byte() % 4 == 0 ? input.chunk(32) : input.oneOf(TOPIC_NAMES), .payload = {}};
    const std::uint8_t has = input.byte();
    publication.retained = (has & 1U) != 0;
    if ((has & 2U) == 0)
        publication.responseTopic = (has & 4U) != 0 ? input.chunk(600) : std::string(input.oneOf(ANSWER_TOPICS));
    if ((has & 8U) != 0) publication.correlation = input.chunk(64);
    if ((has & 16U) != 0) publication.expiry = input.number<std::uint32_t>();
    publication.payload = input.rest();
    return publication;
}

/// Whether the daemon could take a part of the line for a RESET.
bool resets(std::string_view line)
{
    for (;;) {
        const std::size_t end = line.find('|');
        if (beginsWithNoCase(trimmed(line.substr(0, end)), "RESET")) return true;
        if (end == std::string_view::npos) return false;
        line.remove_prefix(end + 1);
    }
}

void checkJudgement(const Publication& publication)
{
    const Judgement judgement = judge(publication, TOPICS, CommandFilter(), NOW);
    fuzzCheck(judgement.request.has_value() == (judgement.whyIgnored == nullptr),
              "it is a request, or it is said why not");
    if (!judgement.request) return;
    const Request& request = *judgement.request;
    const bool isBelowRoot = request.responseTopic == "tess" || request.responseTopic.starts_with("tess/");
    fuzzCheck(!isBelowRoot || request.responseTopic.starts_with("tess/answer/"), "no answer becomes a command");
    fuzzCheck(request.responseTopic.find_first_of(std::string_view("+#\0", 3)) == std::string::npos, "a plain topic");
    fuzzCheck(!publication.retained, "nothing kept is carried out");
    fuzzCheck(request.correlation == publication.correlation, "the data comes back");
    if (judgement.refusal) {
        fuzzCheck(judgement.refusal->status == ReplyStatus::refused, "a refusal is one");
        return;
    }
    const std::string& line = request.line;
    fuzzCheck(!line.empty() && line.size() <= 1006, "a line of a length that tessd takes");
    fuzzCheck(line.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos, "one line");
    fuzzCheck(!resets(line), "no reset comes from afar");
    fuzzCheck(publication.payload.starts_with(line), "nothing is added");
}

/// A filter with rules from the input decides for each command by itself.
void checkFilter(FuzzInput& input)
{
    CommandFilter filter;
    for (int rules = input.byte() % 6; rules > 0; --rules)
        (void)filter.add((input.byte() % 2 == 0 ? "allow " : "deny ") + input.chunk(24));
    const std::string line = input.rest();
    const std::size_t bar = line.find('|');
    if (bar == std::string::npos) return;
    const bool both = filter.allows(line.substr(0, bar)) && filter.allows(line.substr(bar + 1));
    fuzzCheck(both || !filter.allows(line), "a line may not come when one of its commands may not");
    const bool isShort = line.size() <= CommandFilter::MOST_DELAYED_BYTES;
    fuzzCheck(!both || !isShort || filter.allows(line), "it may when each may, and it is not cut");
}

void checkPattern(FuzzInput& input)
{
    const std::string text = input.chunk(64);
    const std::string pattern = input.chunk(32);
    const bool matches = matchesPattern(pattern, text);
    fuzzCheck(matches || !matchesPattern(pattern, text, Stars::withinWords), "a star takes less within words");
    fuzzCheck(matchesPattern("*", text) && matchesPattern(text, text), "everything, and itself");
    fuzzCheck(!matches || matchesPattern(pattern + "*", text + "x"), "a star takes more");
    fuzzCheck(!matches || matchesPattern("*" + pattern, "x" + text), "in front, too");
}

void checkWindow(FuzzInput& input)
{
    RecentRequests recent(100, "");
    std::map<std::pair<std::string, std::string>, std::pair<std::int64_t, RecentRequests::Known>> model;
    std::int64_t now = 1;
    while (!input.empty()) {
        const std::uint8_t act = input.byte();
        const std::pair<std::string, std::string> key{input.take(act % 3U), input.take(act / 3U % 3U)};
        now += input.byte() % 16;
        std::erase_if(model, [now](const auto& each) { return now - each.second.first >= 100; });
        const auto found = model.find(key);
        const auto expected = found == model.end() ? RecentRequests::Known::no : found->second.second;
        fuzzCheck(recent.find({key.first, key.second}, now) == expected, "what was begun is known, and nothing else");
        if (expected == RecentRequests::Known::no) {
            recent.begin({key.first, key.second}, now);
            model[key] = {now, RecentRequests::Known::underWay};
        } else if (act % 2 == 0) {
            recent.finish({key.first, key.second}, {ReplyStatus::answered, "x"});
            found->second.second = RecentRequests::Known::answered;
        } else {
            recent.forget({key.first, key.second});
            model.erase(found);
        }
    }
}

void checkSettings(FuzzInput& input)
try {
    const BridgeSettings settings = bridgeSettings(input.rest(), "f", "host");
    fuzzCheck(!settings.broker.host.empty() && isDeviceName(settings.device), "good settings are whole");
    fuzzCheck(settings.broker.portOrDefault() > 0 && settings.broker.portOrDefault() < 65536, "a port is one");
    fuzzCheck(!settings.broker.plain || settings.broker.psk.empty(), "plain is plain");
} catch (const SettingsError& error) {
    fuzzCheck(std::string_view(error.what()).starts_with("f:"), "it is said where");
}

void checkStatus(FuzzInput& input)
{
    const auto state = deviceState(input.rest());
    if (!state) return;
    fuzzCheck(!state->device.empty(), "a state is a device's");
    for (const std::string& line : stateLines({*state}, 80))
        fuzzCheck(line.find_first_of(std::string_view("\n\r\x1B\0", 4)) == std::string::npos, "a table is plain");
    (void)stateJson({*state});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    switch (input.byte() % 6) {
    case 0:
        checkJudgement(publicationOf(input));
        break;
    case 1:
        checkFilter(input);
        break;
    case 2:
        checkPattern(input);
        break;
    case 3:
        checkWindow(input);
        break;
    case 4:
        checkSettings(input);
        break;
    default:
        checkStatus(input);
    }
    return 0;
}
