#include "daemon/options.h"

#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace {

struct OptionCase {
    const char* behaviour;
    std::vector<std::string> arguments;
    std::string flags; ///< of com2, telnet, noipcsocket, noxcp: a letter where the flag is true
    int missingArgument = 0;
};

void PrintTo(const OptionCase& row, std::ostream* out)
{
    *out << row.behaviour << ':';
    for (const std::string& argument : row.arguments)
        *out << ' ' << argument;
}

Options parse(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "tessd");
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    return parseOptions(static_cast<int>(arguments.size()), argv.data());
}

std::string flagsOf(const Options& options)
{
    std::string flags;
    flags += options.com2 ? 'C' : '-';
    flags += options.telnet ? 'T' : '-';
    flags += options.noipcsocket ? 'X' : '-'; // creates the XCP port
    flags += options.noxcp ? 'I' : '-';       // creates the IPC port
    return flags;
}

const OptionCase optionCases[] = {
    {"no option", {}, "CTXI"},
    {"--nocom2", {"--nocom2"}, "-TXI"},
    {"-y is --nocom2", {"-y"}, "-TXI"},
    {"--notelnet takes no argument", {"--notelnet"}, "C-XI"},
    {"-x takes an argument, which has no effect", {"-x", "1"}, "C-XI"},
    {"-x with its argument behind it", {"-x1"}, "C-XI"},
    {"-x takes even an option for its argument", {"-x", "-y"}, "C-XI"},
    {"--noipcsocket leaves the XCP port out", {"--noipcsocket"}, "CT-I"},
    {"--noxcp leaves the IPC port out", {"--noxcp"}, "CTX-"},
    {"-v is --noxcp", {"-v"}, "CTX-"},
    {"-w does not exist", {"-w"}, "CTXI"},
    {"--debug has no effect", {"--debug", "9"}, "CTXI"},
    {"--debug with an equals sign", {"--debug=9"}, "CTXI"},
    {"--debug with an empty argument", {"--debug="}, "CTXI"},
    {"-z is --debug", {"-z", "9", "-z9"}, "CTXI"},
    {"--debug takes an option for its argument", {"--debug", "--nocom2"}, "CTXI"},
    {"all ports", {"--nocom2", "--notelnet", "--noipcsocket", "--noxcp"}, "----"},
    {"all ports, backwards and twice", {"-v", "--noxcp", "--noipcsocket", "--notelnet", "-y", "--nocom2"}, "----"},
    {"short options together", {"-yv"}, "-TX-"},
    {"an unknown long option", {"--nothing"}, "CTXI"},
    {"an unknown short option", {"-q"}, "CTXI"},
    {"an unknown short option among others", {"-yqv"}, "-TX-"},
    {"an argument that is no option", {"word", "--nocom2", "word"}, "-TXI"},
    {"nothing behind --", {"--nocom2", "--", "--noxcp"}, "-TXI"},
    {"an unambiguous beginning", {"--noc", "--not", "--noi", "--nox"}, "----"},
    {"an ambiguous beginning", {"--no"}, "CTXI"},
    {"capital letters", {"--NOCOM2", "-Y"}, "CTXI"},
    {"an argument where none is taken", {"--nocom2=1"}, "CTXI"},
    {"--debug without its argument", {"--debug"}, "CTXI", 122},
    {"-z without its argument", {"-z"}, "CTXI", 122},
    {"-x without its argument", {"-x"}, "CTXI", 120},
    {"an abbreviated --debug without its argument", {"--de"}, "CTXI", 122},
    {"what comes before a missing argument counts", {"--nocom2", "-x"}, "-TXI", 120},
};

} // namespace

TEST(Options, AreReadFromTheCommandLineWithoutAMessage)
{
    for (const OptionCase& row : optionCases) {
        SCOPED_TRACE(testing::PrintToString(row));
        const LogCapture standardError;
        const Options options = parse(row.arguments);
        EXPECT_EQ(flagsOf(options), row.flags);
        EXPECT_EQ(options.missingArgument, row.missingArgument);
        EXPECT_EQ(standardError.text(), "");
    }
}
