#include "tools/tessctl/status_query.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string>

#include "framework/tess_messages.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/record_text.h"

namespace {

using Clock = std::chrono::steady_clock;

std::uint32_t nextTag()
{
    static std::uint32_t tag = 0;
    return ++tag;
}

/// Finds out whether tessd knows the question, when its answer does not come: asks something that
/// every tessd answers, and changes nothing.
class KindProbe {
public:
    explicit KindProbe(DaemonClient& daemon) : daemon_(daemon) {}

    /// This process has not registered: unregistering is refused.
    void nothingCame()
    {
        if (!asked_) daemon_.send(MSG_UNREGISTER, 0, 0, "");
        asked_ = true;
    }

    /// @throws CtlError  tessd has answered this, and not the question before it
    void came(const TOrbAttachmentMsg& record) const
    {
        if (!asked_ || record.sender != TESS_QUEUE_ID || record.kind != MSG_REPLY) return;
        throw CtlError(STATUS_NO_ANSWER,
                       queuePath(TESS_QUEUE_ID) + ": this tessd does not tell its state: it is of an earlier version");
    }

private:
    DaemonClient& daemon_;
    bool asked_ = false;
};

} // namespace

std::vector<Item> askStatus(DaemonClient& daemon)
{
    const std::uint32_t tag = nextTag();
    daemon.send(MSG_STATUS, tag, 0, "");
    KindProbe probe(daemon);
    std::string text;
    TOrbAttachmentMsg record;
    for (const auto deadline = Clock::now() + DaemonClient::REPLY_PATIENCE; Clock::now() < deadline;) {
        if (stopAsked()) throw CtlError(STATUS_NO_ANSWER, "interrupted");
        if (daemon.receive(record) == 0) {
            probe.nothingCame();
            continue;
        }
        probe.came(record);
        if (record.sender != TESS_QUEUE_ID || record.kind != MSG_STATUS_TEXT || record.tag != tag) continue;
        text += textOf(record);
        if (record.len == 0) return parseItems(text);
    }
    throw CtlError(STATUS_NO_ANSWER, queuePath(TESS_QUEUE_ID) + ": no answer from tessd within " +
                                         std::to_string(DaemonClient::REPLY_PATIENCE.count()) + " s: is it stuck?");
}

const Item& itemOf(const std::vector<Item>& items, std::string_view word)
{
    const auto found = std::ranges::find(items, word, &Item::word);
    if (found == items.end())
        throw CtlError(STATUS_NO_ANSWER,
                       queuePath(TESS_QUEUE_ID) + ": tessd's answer has no line '" + std::string(word) + "'");
    return *found;
}

std::vector<Item> itemsOf(const std::vector<Item>& items, std::string_view word)
{
    std::vector<Item> found;
    std::ranges::copy_if(items, std::back_inserter(found), [&](const Item& item) { return item.word() == word; });
    return found;
}
