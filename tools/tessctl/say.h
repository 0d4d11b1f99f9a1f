#pragma once

#include <iostream>
#include <string>

/// Says something to the user, on standard error. In one write, because two threads may, and
/// because scripts read it.
inline void say(const std::string& text)
{
    std::cerr << "tessctl: " + text + '\n';
}
