#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <optional>

#include "connections/authenticate.h"

/// A name and a password that authenticate() checks in a thread of its own, because a hash takes as
/// long as it is made to take. At the end the service loop is woken. Made by start() only.
/// Threads: start() any; the questions any, except result(), which is for after isOver().
class PasswordCheck {
public:
    static constexpr std::size_t TEXT_BYTES = 257; ///< a name or a password, its NUL included
    static constexpr int NO_VERDICT = 2;           ///< no AuthResult: there was no memory for the check

    /// @param userName  copied, 256 characters at most, the rest is cut
    /// @param password  likewise; the copy is wiped at the end
    /// @return null: no thread could be made, or there was no memory
    static std::shared_ptr<PasswordCheck> start(const char* userName, const char* password) noexcept;

    PasswordCheck(const char* userName, const char* password);
    PasswordCheck(const PasswordCheck&) = delete;
    PasswordCheck& operator=(const PasswordCheck&) = delete;
    ~PasswordCheck();

    const char* userName() const { return userName_.data(); }

    bool isOver() const { return over_; }

    /// @return AuthResult, or NO_VERDICT; to be asked when it is over
    int result() const { return result_; }

private:
    void run() noexcept;
    int verdict() noexcept;

    std::array<char, TEXT_BYTES> userName_;
    std::array<char, TEXT_BYTES> password_;
    int result_ = AUTH_REFUSED;
    std::atomic<bool> over_{false};
};
