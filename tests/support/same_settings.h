#pragma once

#include <cstring>
#include <gtest/gtest.h>
#include <termios.h>

/// Expects that two settings of a line are the same, but for what the system keeps there for
/// itself.
inline void expectSameSettings(const termios& got, const termios& expected)
{
    EXPECT_EQ(got.c_iflag, expected.c_iflag);
    EXPECT_EQ(got.c_oflag, expected.c_oflag);
    EXPECT_EQ(got.c_cflag, expected.c_cflag);
    EXPECT_EQ(got.c_lflag, expected.c_lflag);
    EXPECT_EQ(std::memcmp(got.c_cc, expected.c_cc, sizeof got.c_cc), 0);
}
