#pragma once

#include <string_view>
#include <vector>

#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/item.h"

/// Finds out whether tessd knows a kind of message, when its answer does not come: asks something
/// that every tessd answers, and changes nothing.
/// Threads: one.
class KindProbe {
public:
    /// @param what  such a tessd does ("tell its state")
    KindProbe(DaemonClient& daemon, std::string_view what) : daemon_(daemon), what_(what) {}

    /// To be called when nothing has come for a while, and then with each record that comes.
    void nothingCame();
    /// @throws CtlError  tessd does not know the kind
    void came(const TOrbAttachmentMsg& record) const;

private:
    DaemonClient& daemon_;
    std::string_view what_;
    bool asked_ = false;
};

/// Asks tessd for its state.
/// @throws CtlError  it does not answer, or does not know the question
std::vector<Item> askStatus(DaemonClient& daemon);

/// The first item of a word.
/// @throws CtlError  there is none
const Item& itemOf(const std::vector<Item>& items, std::string_view word);

/// All items of a word, in order.
std::vector<Item> itemsOf(const std::vector<Item>& items, std::string_view word);
