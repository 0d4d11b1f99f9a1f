#include "tools/tessctl/process_names.h"

#include "tools/tessctl/text_table.h"

namespace {

constexpr std::size_t MOST = 24;

} // namespace

/// Of several names of an address the first one is shown.
void ProcessNames::learn(const std::vector<Item>& status)
{
    for (const Item& item : status)
        if (item.word() == "process") names_.try_emplace(item.text("address"), item.text("name"));
}

void ProcessNames::see(const Item& event)
{
    if (event.word() == "register") names_[event.text("process")] = event.text("name");
}

std::string ProcessNames::of(const std::string& address) const
{
    const auto found = names_.find(address);
    return found != names_.end() ? cutLine(found->second, MOST) : std::string();
}
