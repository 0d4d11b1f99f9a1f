#include "connections/password_check.h"

#include <cstring>
#include <new>

#include "common/own_thread.h"
#include "common/wake_up.h"
#include "framework/fixed_text.h"

PasswordCheck::PasswordCheck(const char* userName, const char* password)
{
    putText(userName_, userName);
    putText(password_, password);
}

PasswordCheck::~PasswordCheck()
{
    ::explicit_bzero(password_.data(), password_.size());
}

std::shared_ptr<PasswordCheck> PasswordCheck::start(const char* userName, const char* password) noexcept
try {
    auto check = std::make_shared<PasswordCheck>(userName, password);
    return startOwnThread([check] { check->run(); }) ? check : nullptr;
} catch (const std::bad_alloc&) {
    return nullptr;
}

int PasswordCheck::verdict() noexcept
try {
    return authenticate(userName_.data(), password_.data());
} catch (const std::bad_alloc&) {
    return NO_VERDICT;
}

void PasswordCheck::run() noexcept
{
    result_ = verdict();
    over_ = true;
    g_wakeUp.wake();
}
