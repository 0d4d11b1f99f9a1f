#pragma once

#include <cstdint>
#include <memory>

#include "connections/password_check.h"

/// What comes next in a login dialogue that waits for something else than a line of the peer.
enum class LoginOwes : std::uint8_t {
    nothing,
    prompt,  ///< the question for the password, once the echo is off
    verdict, ///< the end of the password check
    welcome, ///< the answer to an accepted user, once the echo is on
};

struct LoginPause {
    LoginOwes owes = LoginOwes::nothing;
    std::shared_ptr<PasswordCheck> check; ///< from its start until the welcome
};
