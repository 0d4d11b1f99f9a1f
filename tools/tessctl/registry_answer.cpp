#include "tools/tessctl/registry_answer.h"

#include <algorithm>
#include <array>

#include "framework/tess_messages.h"

bool answersUnregistering(std::string_view answer)
{
    constexpr std::array<std::string_view, 3> BEGINNINGS{"Process unregister operation", "Process not found in",
                                                         "Registered process list is empty"};
    return std::ranges::any_of(BEGINNINGS, [&](std::string_view beginning) { return answer.starts_with(beginning); });
}

std::string refusalText(std::string_view name, std::string_view answer)
{
    const std::string refused = "tessd does not register " + std::string(name) + ": ";
    if (answer.starts_with("Max # of registered processes reached"))
        return refused + "it has " + std::to_string(MAX_REGISTERED_PROCS) +
               " names, and more do not fit: end another process";
    if (answer.starts_with("Command register request with nothing enabled"))
        return refused + "no kind of port is asked for";
    if (answer.starts_with("Couldn't allocate memory")) return refused + "its memory is used up";
    return refused + "it gives no reason that is known here: is it of another version?";
}
