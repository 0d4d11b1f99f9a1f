#pragma once

#include <string_view>
#include <vector>

#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/item.h"

/// Asks tessd for its state.
/// @throws CtlError  it does not answer, or does not know the question
std::vector<Item> askStatus(DaemonClient& daemon);

/// The first item of a word.
/// @throws CtlError  there is none
const Item& itemOf(const std::vector<Item>& items, std::string_view word);

/// All items of a word, in order.
std::vector<Item> itemsOf(const std::vector<Item>& items, std::string_view word);
