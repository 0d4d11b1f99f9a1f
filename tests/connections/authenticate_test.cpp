#include "connections/authenticate.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "tests/support/passwd_file.h"
#include "tests/support/private_mounts.h"

namespace {

class Authenticate : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
    }

    /// Checks a password; what is left of it is in `typed`.
    int check(const char* user, const std::string& password)
    {
        typed = password;
        return authenticate(user, typed.data());
    }

    std::string typed;
};

const std::string ACCOUNTS =
    std::string(ROOT) + ALICE + BOB +
    "shadowed:x:1004:1004::/home/shadowed:/bin/sh\n"
    "locked:*:1005:1005::/home/locked:/bin/sh\n"
    "disabled:!$6$abcdefgh$YN8B0zmx4g7gHNsAPRHBHL7/9D2xv7Ojh6WbPzJjQGPPjUs3FiTtHkWxn/GwRo78ZpAtbvjbXJsaUxh7djdaf0:1006:"
    "1006::/:/bin/sh\n"
    "open::1007:1007::/home/open:/bin/sh\n"
    "failed:*0:1008:1008::/home/failed:/bin/sh\n"
    "other:$6$abcdefgh$YN8B0zmx4g7gHNsAPRHBHL7/9D2xv7Ojh6WbPzJjQGPPjUs3FiTtHkWxn/GwRo78ZpAtbvjbXJsaUxh7djdaf0:1009:"
    "1009::/home/other:/bin/sh\n"
    "cut:$6$abcdefgh$YN8B0zmx:1010:1010::/home/cut:/bin/sh\n"
    "unknown:$99$abcdefgh$YN8B0zmx:1011:1011::/home/unknown:/bin/sh\n"
    "nopass:$y$j9T$OszHvrIWAHafEImx/iK2e/$loMBJvZWTitYwtuT2KrucF0Dn3JLPcbHK0SqDgyi7E0:1012:1012::/:/bin/sh\n"
    "Root:$6$abcdefgh$YN8B0zmx4g7gHNsAPRHBHL7/9D2xv7Ojh6WbPzJjQGPPjUs3FiTtHkWxn/GwRo78ZpAtbvjbXJsaUxh7djdaf0:0:0::/:"
    "/bin/sh\n";

} // namespace

TEST_F(Authenticate, AcceptsWhoeverKnowsThePasswordAndNobodyElse)
{
    const PasswdFile accounts(ACCOUNTS);
    struct Row {
        const char* behaviour;
        const char* user;
        const char* password;
        int result;
    };
    const Row rows[] = {
        {"SHA-512", "alice", "secret", 1},
        {"yescrypt", "bob", "geheim", 1},
        {"a password with a blank", "other", "pass word", 1},
        {"an empty password that has a hash", "nopass", "", 1},
        {"a wrong password", "alice", "Secret", -1},
        {"another user's password", "bob", "secret", -1},
        {"a longer password", "alice", "secret ", -1},
        {"an empty password", "alice", "", -1},
        {"a wrong password where the empty one is right", "nopass", "x", -1},
        {"format characters", "alice", "%s%n%s%n", -1},
        {"the hash itself", "other",
         "$6$abcdefgh$YN8B0zmx4g7gHNsAPRHBHL7/9D2xv7Ojh6WbPzJjQGPPjUs3FiTtHkWxn/GwRo78ZpAtbvjbXJsaUxh7djdaf0", -1},
        {"no such user", "nobody-at-all", "secret", 0},
        {"an empty name", "", "secret", 0},
        {"names differ by case", "Alice", "secret", 0},
        {"a name with format characters", "%s%n", "secret", 0},
        {"a name with a colon", "alice:", "secret", 0},
        {"the super-user", "root", "toor", -1},
        {"the super-user with a wrong password", "root", "secret", -1},
        {"only the name root itself is refused", "Root", "pass word", 1},
        {"a placeholder for a shadow entry", "shadowed", "x", -1},
        {"a star", "locked", "*", -1},
        {"a hash made invalid", "disabled", "pass word", -1},
        {"an empty field", "open", "", -1},
        {"an empty field and any password", "open", "open", -1},
        {"the mark of a failed hash", "failed", "*0", -1},
        {"a hash cut short", "cut", "pass word", -1},
        {"an unknown method", "unknown", "pass word", -1},
    };
    for (const Row& row : rows)
        EXPECT_EQ(check(row.user, row.password), row.result) << row.behaviour;
}

TEST_F(Authenticate, WipesThePasswordButNotThatOfTheSuperUser)
{
    const PasswdFile accounts(ACCOUNTS);
    for (const char* const user : {"alice", "bob", "shadowed", "open", "no-such-user"})
        for (const std::string& password : {std::string("secret"), std::string("x"), std::string(200, 'p')}) {
            check(user, password);
            EXPECT_EQ(typed, std::string(password.size(), '\0')) << user;
        }
    check("alice", std::string("secret\0behind it", 16));
    EXPECT_EQ(typed, std::string("\0\0\0\0\0\0\0behind it", 16)) << "up to its end";
    check("root", "toor");
    EXPECT_EQ(typed, "toor");
}

TEST_F(Authenticate, TellsWhoAUserIsOnlyWhenAccepted)
{
    const PasswdFile accounts(ACCOUNTS);
    UserLookUp found{};
    lookUpUser(found, "alice", "secret");
    EXPECT_EQ(found.status, AUTH_ACCEPTED);
    EXPECT_EQ(found.uid, 1001U);
    EXPECT_EQ(found.gid, 1002U);
    EXPECT_STREQ(found.homeDirectory, "/home/alice");

    UserLookUp refused{};
    lookUpUser(refused, "alice", "wrong");
    EXPECT_EQ(refused.status, AUTH_REFUSED);
    EXPECT_EQ(refused.uid, 0U);
    EXPECT_EQ(refused.homeDirectory, nullptr);

    UserLookUp unknown{};
    unknown.status = AUTH_REFUSED;
    lookUpUser(unknown, "no-such-user", "secret");
    EXPECT_EQ(unknown.status, AUTH_UNKNOWN);
}

TEST_F(Authenticate, KnowsNobodyWithoutADatabase)
{
    const PasswdFile accounts("");
    EXPECT_EQ(check("alice", "secret"), 0);
    EXPECT_EQ(check("root", "toor"), -1);
}

TEST_F(Authenticate, TakesLongEntriesAndNoneLongerThanAMegabyte)
{
    const std::string hash = std::string(ALICE).substr(6, std::string(ALICE).find(':', 6) - 6);
    const auto entry = [&hash](const char* name, std::size_t comment) {
        return std::string(name) + ":" + hash + ":1:1:" + std::string(comment, 'c') + ":/home:/bin/sh\n";
    };
    // Whoever stands behind the last of them would be unknown, too.
    const PasswdFile accounts(entry("long", 5000) + entry("longer", 1'000'000) + ALICE + entry("endless", 1'100'000));
    EXPECT_EQ(check("long", "secret"), 1);
    EXPECT_EQ(check("longer", "secret"), 1);
    EXPECT_EQ(check("alice", "secret"), 1);
    EXPECT_EQ(check("endless", "secret"), 0);
}

TEST_F(Authenticate, TakesLongNames)
{
    const std::string name(256, 'a');
    const std::string hash = std::string(ALICE).substr(5);
    const PasswdFile accounts(name + hash);
    EXPECT_EQ(check(name.c_str(), "secret"), 1);
    EXPECT_EQ(check(name.substr(1).c_str(), "secret"), 0);
}
