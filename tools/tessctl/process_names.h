#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/tessctl/item.h"

/// The names of processes, by the address of their queue, for people to whom an address says
/// little.
class ProcessNames {
public:
    /// Learns those that are not known yet from the daemon's state.
    void learn(const std::vector<Item>& status);

    /// Learns from what happens, too.
    void see(const Item& event);

    /// @return the name, as it is shown, and cut to a width; empty where none is known
    std::string of(const std::string& address) const;

private:
    std::map<std::string, std::string> names_;
};
