#include "commands/command_address.h"

#include <cstring>
#include <gtest/gtest.h>
#include <ostream>
#include <string>

#include "tests/support/address_rules.h"
#include "tests/support/readable.h"

using namespace std::string_literals;

namespace {

struct AddressCase {
    const char* behaviour;
    std::string token;
    std::string unit;
    std::string process;
    int result;
    std::string body; ///< what the result leaves to forward; not looked at when rejected
};

void PrintTo(const AddressCase& row, std::ostream* out)
{
    *out << row.behaviour << ": \"" << readable(row.token) << '"';
}

std::string times(std::size_t n, char c)
{
    return std::string(n, c);
}

const AddressCase addressCases[] = {
    // --- without an address
    {"a plain command is a broadcast", "SETX 5", "*", "*", 1, "SETX 5"},
    {"one word", "SETX", "*", "*", 1, "SETX"},
    {"nothing", "", "*", "*", 1, ""},
    {"one character", "X", "*", "*", 1, "X"},
    {"a dot in a later word", "SETX 1.5", "*", "*", 1, "SETX 1.5"},
    {"dots in every later word", "MOVE 1.5 2.5", "*", "*", 1, "MOVE 1.5 2.5"},
    {"a dotted word alone", "s3.ENC", "*", "*", 1, "s3.ENC"},
    {"a dot at the end", "s3.", "*", "*", 1, "s3."},
    {"a dot alone", ".", "*", "*", 1, "."},
    {"two dots in the first word", "s3.ENC.A X", "*", "*", 1, "s3.ENC.A X"},
    {"two dots in a row", "s3..ENC X", "*", "*", 1, "s3..ENC X"},
    {"8-bit characters", "\xE4\xFF \x80", "*", "*", 1, "\xE4\xFF \x80"},

    // --- with an address
    {"unit, process, command", "s3.ENC SETX 5", "s3", "ENC", 7, "SETX 5"},
    {"letters in any case stay as they are", "S3.enc SetX", "S3", "enc", 7, "SetX"},
    {"another unit", "t1.ENC X", "t1", "ENC", 7, "X"},
    {"dots behind the first word do not matter", "s3.ENC SETX 1.5 2.5", "s3", "ENC", 7, "SETX 1.5 2.5"},
    {"several blanks", "s3.ENC    X", "s3", "ENC", 10, "X"},
    {"a tab", "s3.ENC\tX", "s3", "ENC", 7, "X"},
    {"all kinds of white space", "s3.ENC \t\v\f\r\nX", "s3", "ENC", 12, "X"},
    {"an empty process", "s3. X", "s3", "", 4, "X"},
    {"an empty unit", ".x y", "", "x", 3, "y"},
    {"both empty", ". x", "", "", 2, "x"},
    {"no command behind the white space", "s3.ENC ", "s3", "ENC", 7, ""},

    // --- stars
    {"any unit", "*.ENC X", "*", "ENC", 6, "X"},
    {"any unit, any process", "*.* X", "*", "*", 4, "X"},
    {"any unit, any process, no command", "*.*", "*", "*", 3, ""},
    {"any unit, empty process, no command", "*.", "*", "", 2, ""},
    {"any unit, empty process", "*. X", "*", "", 3, "X"},
    {"any unit, process alone", "*.ENC", "*", "ENC", 5, ""},
    {"a star and a command", "* X", "*", "*", 2, "X"},
    {"a star and several blanks", "*   X", "*", "*", 4, "X"},
    {"a star and a blank", "* ", "*", "*", 2, ""},
    {"a star alone", "*", "*", "", 1, "*"},
    {"two stars alone", "**", "**", "", 2, ""},
    {"a star glued to a word", "*X Y", "*X", "", 0, ""},
    {"a star glued to a word alone", "*X", "*X", "", 2, ""},
    {"two stars and a command", "** X", "**", "", 0, ""},
    {"a star in front of a dotted word", "*X.ENC Y", "*X", "ENC", 7, "Y"},
    {"a star, then a dot in the process", "*.A.B X", "*", "A.B", 6, "X"},
    {"a star as the process", "s3.* X", "s3", "*", 5, "X"},
    {"a star as the second word", "s3.ENC *", "*", "*", 1, "s3.ENC *"},
    {"a star beginning the second word", "s3.ENC *X", "*", "*", 1, "s3.ENC *X"},
    {"a star inside the second word", "s3.ENC X*", "*", "*", 1, "s3.ENC X*"},
    {"a star in the third word", "s3.ENC SETX *", "s3", "ENC", 7, "SETX *"},
    {"a star behind two blanks", "s3.ENC  *", "s3", "ENC", 8, "*"},
    {"a star at the end of the first word", "s3.ENC* X", "s3", "ENC*", 8, "X"},
    {"a star and no dot", "SETX *", "*", "*", 1, "SETX *"},

    // --- sentences and dollars
    {"a position sentence", "$GPRMC,1,A", "*", "GPSD", 4, "MC,1,A"},
    {"a whole position sentence", "$GPRMC,123519,A,4807.038,N", "*", "GPSD", 4, "MC,123519,A,4807.038,N"},
    {"a position sentence without a comma", "$GPRMC", "*", "GPSD", 4, "MC"},
    {"a position sentence of a longer name", "$GPRMCX,1", "*", "GPSD", 5, "CX,1"},
    {"a position sentence with blanks before the comma", "$GPRMC A,1", "*", "GPSD", 6, " A,1"},
    {"a position sentence with a dot, a star, a dollar before the comma", "$GPRMC.*$,1", "*", "GPSD", 7, "*$,1"},
    {"another sentence", "$GPGGA,1", "$GPGGA", "", 0, ""},
    {"small letters are another sentence", "$gprmc,1", "$gprmc", "", 0, ""},
    {"a sentence cut short", "$GPRM", "$GPRM", "", 0, ""},
    {"a comma in the name", "$GP,RMC", "$GP", "", 0, ""},
    {"a dollar alone", "$", "$", "", 0, ""},
    {"a dollar and a comma", "$,", "$", "", 0, ""},
    {"a sentence behind a letter", "A$GPRMC,1", "A$GPRMC", "", 0, ""},
    {"a sentence behind a star", "*$GPRMC,1", "*$GPRMC", "", 0, ""},
    {"a dollar in a command without an address", "SET $5", "SET", "", 0, ""},
    {"a dollar at the end of one word", "SET$", "SET$", "", 0, ""},
    {"a dollar behind an address", "s3.ENC SET $5", "s3", "ENC", 7, "SET $5"},
    {"a dollar in the process field", "s3.E$C X", "s3", "E$C", 7, "X"},
    {"a dollar saves a star as the second word", "s3.ENC * $", "s3", "ENC", 7, "* $"},
    {"a dollar saves a second dot", "s3.ENC.A $", "s3", "ENC.A", 9, "$"},
    {"a dollar behind a star", "* $5", "*", "*", 2, "$5"},
    {"a dollar behind a dot without a blank", "s3.$", "s3", "$", 4, ""},

    // --- the longest fields and tokens
    {"a unit of 255 characters", times(255, 'u') + ".P X", times(255, 'u'), "P", 258, "X"},
    {"a unit of 256 characters is cut", times(256, 'u') + ".P X", times(255, 'u'), "P", 259, "X"},
    {"a unit of 900 characters is cut", times(900, 'u') + ".P X", times(255, 'u'), "P", 903, "X"},
    {"a process of 255 characters", "s3." + times(255, 'p') + " X", "s3", times(255, 'p'), 259, "X"},
    {"a process of 256 characters is cut", "s3." + times(256, 'p') + " X", "s3", times(255, 'p'), 260, "X"},
    {"a process of 1000 characters is cut", "s3." + times(1000, 'p') + " X", "s3", times(255, 'p'), 1004, "X"},
    {"a position sentence of 300 characters without a comma", "$GPRMC" + times(294, 'x'), "*", "GPSD", 298, "xx"},
    {"another sentence of 300 characters is cut", "$" + times(299, 'x'), "$" + times(254, 'x'), "", 0, ""},
    {"a rejected word of 300 characters is cut", "*" + times(299, 'x') + " Y", "*" + times(254, 'x'), "", 0, ""},
    {"a process of a star and 254 more", "*.*" + times(300, 'p') + " X", "*", "*" + times(254, 'p'), 304, "X"},
    {"a broadcast of 1023 characters", times(1023, 'x'), "*", "*", 1, times(1023, 'x')},
    {"an address and 1016 characters", "s3.ENC " + times(1016, 'x'), "s3", "ENC", 7, times(1016, 'x')},
    {"1022 blanks behind a star", "*" + times(1022, ' '), "*", "*", 1023, ""},
    {"1023 dots", times(1023, '.'), "*", "*", 1, times(1023, '.')},
    {"1023 stars", times(1023, '*'), times(255, '*'), "", 1023, ""},
};

} // namespace

TEST(CommandAddress, SplitsATokenIntoAddressAndCommand)
{
    for (const AddressCase& row : addressCases) {
        SCOPED_TRACE(testing::PrintToString(row));
        CommandAddress address;
        std::memset(&address, 0x5A, sizeof address);
        const int result = parseCmdAddress(row.token, address);
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(readable(address.unitAddr), readable(row.unit));
        EXPECT_EQ(readable(address.procAddr), readable(row.process));
        if (result == 1) {
            EXPECT_EQ(row.body, row.token);
        }
        if (result > 1) {
            ASSERT_LE(static_cast<std::size_t>(result), row.token.size());
            EXPECT_EQ(readable(row.token.substr(static_cast<std::size_t>(result))), readable(row.body));
        }
    }
}

TEST(CommandAddress, SkipsWhiteSpaceInFrontWithoutCountingIt)
{
    CommandAddress address;
    EXPECT_EQ(parseCmdAddress(" \t s3.ENC X", address), 7);
    EXPECT_STREQ(address.unitAddr, "s3");
    EXPECT_STREQ(address.procAddr, "ENC");
    EXPECT_EQ(parseCmdAddress("  *", address), 1);
    EXPECT_STREQ(address.unitAddr, "*");
    EXPECT_STREQ(address.procAddr, "");
    EXPECT_EQ(parseCmdAddress("   ", address), 1);
    EXPECT_STREQ(address.procAddr, "*");
}

TEST(CommandAddress, LooksAtNothingBehindTheToken)
{
    const std::string buffer = "s3.ENC SETX 5|$GPRMC,1|*";
    CommandAddress address;
    EXPECT_EQ(parseCmdAddress(std::string_view(buffer).substr(0, 3), address), 1);
    EXPECT_STREQ(address.procAddr, "*");
    EXPECT_EQ(parseCmdAddress(std::string_view(buffer).substr(0, 13), address), 7);
    EXPECT_STREQ(address.procAddr, "ENC");
}

TEST(CommandAddress, ForgetsTheAddressOfAnEarlierToken)
{
    CommandAddress address;
    EXPECT_EQ(parseCmdAddress("s3.ALONGPROCESSNAME X", address), 20);
    EXPECT_EQ(parseCmdAddress("*", address), 1);
    EXPECT_STREQ(address.unitAddr, "*");
    EXPECT_STREQ(address.procAddr, "");
}

TEST(CommandAddress, FollowsTheRulesForEveryShortToken)
{
    const std::string alphabet = "*.$ A,";
    long tokens = 0;
    for (std::size_t length = 0; length <= 6; ++length) {
        std::size_t combinations = 1;
        for (std::size_t i = 0; i < length; ++i)
            combinations *= alphabet.size();
        for (std::size_t n = 0; n < combinations; ++n) {
            std::string token;
            for (std::size_t rest = n; token.size() < length; rest /= alphabet.size())
                token += alphabet[rest % alphabet.size()];
            if (token.starts_with(' ')) continue;
            const AddressByRules expected = addressByRules(token);
            CommandAddress address;
            const int result = parseCmdAddress(token, address);
            ASSERT_EQ(result, expected.result) << '"' << token << '"';
            ASSERT_EQ(address.unitAddr, expected.unit) << '"' << token << '"';
            ASSERT_EQ(address.procAddr, expected.process) << '"' << token << '"';
            ++tokens;
        }
    }
    EXPECT_GT(tokens, 45'000);
}
