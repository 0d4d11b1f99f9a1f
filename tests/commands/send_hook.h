#pragma once

#include <functional>

/// While one lives, something happens before every sendto() of this program. One at a time.
/// The linker's option --wrap leads sendto() here.
class SendHook {
public:
    explicit SendHook(std::function<void()> before);
    SendHook(const SendHook&) = delete;
    SendHook& operator=(const SendHook&) = delete;
    ~SendHook();
};
