#include "framework/fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <type_traits>

namespace {

static_assert(!std::is_copy_constructible_v<Fd> && !std::is_copy_assignable_v<Fd>);
static_assert(!std::is_convertible_v<int, Fd>, "nobody takes a descriptor over by accident");

int opened()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(Fd, OwnsNoneAtFirst)
{
    EXPECT_LT(Fd().get(), 0);
}

TEST(Fd, ClosesWhatItOwnsAtTheEndOfItsLife)
{
    const int number = opened();
    {
        const Fd fd(number);
        EXPECT_EQ(fd.get(), number);
        EXPECT_TRUE(isOpen(number));
    }
    EXPECT_FALSE(isOpen(number));
}

TEST(Fd, ClosesWhatItOwnedWhenItTakesAnother)
{
    const int first = opened();
    const int second = opened();
    Fd fd(first);
    fd.reset(second);
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    fd.reset();
    EXPECT_LT(fd.get(), 0);
    EXPECT_FALSE(isOpen(second));
}

TEST(Fd, LeavesOpenWhatItHasGivenAway)
{
    const int number = opened();
    {
        Fd fd(number);
        EXPECT_EQ(fd.release(), number);
        EXPECT_LT(fd.get(), 0);
    }
    EXPECT_TRUE(isOpen(number));
    (void)::close(number);
}

TEST(Fd, GoesFromOneOwnerToAnother)
{
    const int first = opened();
    const int second = opened();
    Fd from(first);
    Fd to(std::move(from));
    EXPECT_EQ(to.get(), first);
    to = Fd(second);
    EXPECT_EQ(to.get(), second);
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
}

} // namespace
