#include "daemon/options.h"

#include <array>
#include <getopt.h>
#include <string>

Options parseOptions(int argc, char* argv[])
{
    // The short options do not match the long ones (deliberate): -x takes an argument, -w does not
    // exist.
    static constexpr const char* shortOptions = ":z:yx:v";
    // clang-format off
    static constexpr std::array longOptions{
        option{"debug", required_argument, nullptr, 'z'},
        option{"nocom2", no_argument, nullptr, 'y'},
        option{"notelnet", no_argument, nullptr, 'x'},
        option{"noipcsocket", no_argument, nullptr, 'w'},
        option{"noxcp", no_argument, nullptr, 'v'},
        option{nullptr, 0, nullptr, 0},
    };
    // clang-format on

    Options options;
    std::string debug; // accepted, without effect
    optind = 0;        // starts afresh, whoever has used getopt before
    for (int c; (c = ::getopt_long(argc, argv, shortOptions, longOptions.data(), nullptr)) != -1;) {
        switch (c) {
        case 'z':
            debug = optarg;
            break;
        case 'y':
            options.com2 = false;
            break;
        case 'x':
            options.telnet = false;
            break;
        case 'w':
            options.noipcsocket = false;
            break;
        case 'v':
            options.noxcp = false;
            break;
        case ':':
            options.missingArgument = optopt;
            return options;
        default:
            break;
        }
    }
    return options;
}
