#include "tools/tessctl/fleet_program.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <unistd.h>

#include "tools/tessctl/argument_list.h"

namespace {

constexpr const char* NAME = "tessctl-fleet";
constexpr const char* INSTALLED = "/../libexec/tess/"; // from where tessctl is installed

/// The folder of this program.
std::string ownFolder()
{
    std::array<char, 4096> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size() - 1);
    const std::string text(path.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
    return text.substr(0, text.rfind('/'));
}

} // namespace

void becomeFleetProgram(const std::string& what, const FleetOptions& options, const std::string& line)
{
    std::vector<std::string> words{NAME,
                                   what,
                                   options.settings,
                                   std::to_string(options.wait.count()),
                                   options.json ? "json" : "",
                                   options.all ? "all" : "",
                                   options.group,
                                   line};
    words.insert(words.end(), options.devices.begin(), options.devices.end());
    const std::vector<char*> arguments = argumentList(words);
    const std::string folder = ownFolder();
    (void)::execv((folder + "/" + NAME).c_str(), arguments.data());
    (void)::execv((folder + INSTALLED + NAME).c_str(), arguments.data());
    throw CtlError(STATUS_NO_CONNECTION,
                   folder + INSTALLED + NAME + ": " + std::strerror(errno) +
                       ": 'fleet' wants this program, which is built where libmosquitto is there");
}

FleetCall fleetCall(int argc, char** argv)
{
    if (argc < 8) throw CtlError(STATUS_WRONG_USAGE, "this is the part of 'tessctl fleet' that talks to the broker");
    FleetCall call{.what = argv[1], .line = argv[7], .options = {}};
    call.options.settings = argv[2];
    const std::string_view wait = argv[3];
    std::int64_t milliseconds = 0;
    (void)std::from_chars(wait.data(), wait.data() + wait.size(), milliseconds); // tessctl has written it
    call.options.wait = std::chrono::milliseconds(milliseconds);
    call.options.json = *argv[4] != '\0';
    call.options.all = *argv[5] != '\0';
    call.options.group = argv[6];
    call.options.devices.assign(argv + 8, argv + argc);
    return call;
}
