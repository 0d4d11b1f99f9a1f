#include "connections/password_check.h"

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <new>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/wake_up.h"
#include "tests/support/no_threads.h"
#include "tests/support/passwd_file.h"
#include "tests/support/private_mounts.h"
#include "tests/support/waiting.h"

namespace {

bool isAwake(int milliseconds = 0)
{
    pollfd input{g_wakeUp.fd(), POLLIN, 0};
    return ::poll(&input, 1, milliseconds) == 1;
}

/// In place of the system's accounts while it lives: whoever looks a user up waits until there is
/// something to read.
class SlowPasswd {
public:
    SlowPasswd() { isMade_ = ::mkfifo(MADE, 0600) == 0 && ::mount(MADE, PLACE, nullptr, MS_BIND, nullptr) == 0; }
    SlowPasswd(const SlowPasswd&) = delete;
    SlowPasswd& operator=(const SlowPasswd&) = delete;
    ~SlowPasswd()
    {
        ::umount2(PLACE, MNT_DETACH);
        ::unlink(MADE);
    }

    bool isMade() const { return isMade_; }

    /// Waits until somebody looks a user up, and lets him find nobody.
    void goOn() const { ::close(::open(MADE, O_WRONLY | O_CLOEXEC)); }

private:
    static constexpr const char* MADE = "/tmp/slow-passwd";
    static constexpr const char* PLACE = "/etc/passwd";

    bool isMade_;
};

class PasswordCheckTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        g_wakeUp.open();
        g_wakeUp.clear();
    }
};

} // namespace

TEST_F(PasswordCheckTest, FindsWhatAuthenticateDoesAndWakesTheServiceLoop)
{
    struct Row {
        const char* user;
        const char* password;
        int result;
    };
    const Row rows[] = {
        {"alice", "secret", AUTH_ACCEPTED}, {"bob", "geheim", AUTH_ACCEPTED}, {"alice", "wrong", AUTH_REFUSED},
        {"carol", "secret", AUTH_UNKNOWN},  {"", "", AUTH_UNKNOWN},           {"root", "toor", AUTH_REFUSED},
    };
    const PasswdFile accounts(std::string(ROOT) + ALICE + BOB);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.user);
        g_wakeUp.clear();
        const auto check = PasswordCheck::start(row.user, row.password);
        ASSERT_TRUE(check);
        EXPECT_TRUE(isAwake(20'000));
        EXPECT_TRUE(check->isOver()) << "before it wakes anybody";
        EXPECT_EQ(check->result(), row.result);
        EXPECT_STREQ(check->userName(), row.user);
        EXPECT_TRUE(waitUntil([&] { return check.use_count() == 1; }));
    }
}

TEST_F(PasswordCheckTest, HoldsNobodyWhileItRuns)
{
    const SlowPasswd accounts;
    ASSERT_TRUE(accounts.isMade());
    const auto check = PasswordCheck::start("alice", "secret");
    ASSERT_TRUE(check);
    EXPECT_FALSE(check->isOver());
    EXPECT_FALSE(isAwake(20));
    EXPECT_FALSE(check->isOver());
    accounts.goOn();
    EXPECT_TRUE(isAwake(20'000));
    EXPECT_TRUE(check->isOver());
    EXPECT_EQ(check->result(), AUTH_UNKNOWN);
}

TEST_F(PasswordCheckTest, MayBeForgottenWhileItRuns)
{
    const SlowPasswd accounts;
    ASSERT_TRUE(accounts.isMade());
    std::weak_ptr<PasswordCheck> check;
    {
        const auto started = PasswordCheck::start("alice", "secret");
        ASSERT_TRUE(started);
        check = started;
    }
    EXPECT_FALSE(check.expired()) << "its thread has it";
    accounts.goOn();
    EXPECT_TRUE(waitUntil([&] { return check.expired(); }));
    EXPECT_TRUE(isAwake()) << "which harms nobody";
}

TEST_F(PasswordCheckTest, KeepsNoPasswordBehindItsEnd)
{
    for (const char* const user : {"alice", "root"}) {
        alignas(PasswordCheck) char storage[sizeof(PasswordCheck)]{};
        const std::string_view bytes(storage, sizeof storage);
        auto* const check = new (storage) PasswordCheck(user, "secret");
        EXPECT_NE(bytes.find("secret"), bytes.npos) << "the test looks at the right place";
        std::destroy_at(check);
        EXPECT_EQ(bytes.find("secret"), bytes.npos) << user;
    }
}

TEST_F(PasswordCheckTest, CutsWhatIsTooLong)
{
    const std::string name(300, 'n');
    const PasswordCheck check(name.c_str(), std::string(300, 'p').c_str());
    EXPECT_EQ(check.userName(), name.substr(0, PasswordCheck::TEXT_BYTES - 1));
}

TEST_F(PasswordCheckTest, IsNotThereWithoutAThread)
{
    const NoThreads none;
    ASSERT_TRUE(none.isSet());
    EXPECT_EQ(PasswordCheck::start("alice", "secret"), nullptr);
    EXPECT_FALSE(isAwake());
}
