#include "connections/password_check.h"

#include <cstring>

#include "common/own_thread.h"
#include "common/wake_up.h"
#include "framework/fixed_text.h"

TPasswordCheck::TPasswordCheck(const char* userName, const char* password)
{
    putText(userName_, userName);
    putText(password_, password);
}

TPasswordCheck::~TPasswordCheck()
{
    ::explicit_bzero(password_.data(), password_.size());
}

std::shared_ptr<TPasswordCheck> TPasswordCheck::start(const char* userName, const char* password)
{
    auto check = std::make_shared<TPasswordCheck>(userName, password);
    return startOwnThread([check] { check->run(); }) ? check : nullptr;
}

void TPasswordCheck::run()
{
    result_ = authenticate(userName_.data(), password_.data());
    over_ = true;
    g_wakeUp.wake();
}
