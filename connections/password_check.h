#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <optional>

#include "connections/authenticate.h"

/// A name and a password that are being checked by authenticate(), in a thread of its own: a hash
/// takes as long as it is made to take. The service loop is woken at the end.
class PasswordCheck {
public:
    static constexpr std::size_t TEXT_BYTES = 257; ///< a name or a password, its NUL included
    static constexpr int NO_VERDICT = 2;           ///< no AuthResult: there was no memory for the check

    /// @param password  copied; the copy is wiped
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
