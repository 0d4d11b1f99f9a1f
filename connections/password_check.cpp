#include "connections/password_check.h"

#include <cstring>

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

std::shared_ptr<PasswordCheck> PasswordCheck::start(const char* userName, const char* password)
{
    auto check = std::make_shared<PasswordCheck>(userName, password);
    return startOwnThread([check] { check->run(); }) ? check : nullptr;
}

void PasswordCheck::run()
{
    result_ = authenticate(userName_.data(), password_.data());
    over_ = true;
    g_wakeUp.wake();
}
