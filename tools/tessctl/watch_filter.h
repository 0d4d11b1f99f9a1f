#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/tessctl/item.h"
#include "tools/tessctl/process_names.h"

/// Picks from what is watched what is wanted. What tells of losses is always wanted.
class WatchFilter {
public:
    /// @param name  of a process; empty: any
    /// @param port  of connections; empty: any
    WatchFilter(std::string name, std::string port);

    /// Learns the addresses of processes, without which a name means nothing.
    void learn(const std::vector<Item>& status);

    /// @return whether an event is to be shown; a registration is learnt from
    bool wants(const Item& event);

private:
    bool isOfProcess(const Item& event) const;

    std::string name_;
    std::string port_;
    std::string address_; ///< of the process of that name; empty: it is not known
};

/// An event as a line for people.
/// @param names   of the processes, which stand behind their addresses
/// @param colour  with the escapes that a terminal takes for colours
std::string eventText(const Item& event, const ProcessNames& names, bool colour);
