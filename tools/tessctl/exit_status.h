#pragma once

#include <stdexcept>
#include <string>

/// How tessctl ends, whatever the command.
enum ExitStatus : int {
    STATUS_DONE = 0,          ///< done; every line was answered
    STATUS_REFUSED = 1,       ///< an answer was "?", something does not work, a question was not answered with yes
    STATUS_NO_ANSWER = 2,     ///< nothing came in time
    STATUS_NO_CONNECTION = 3, ///< nobody to talk to, or no way to
    STATUS_WRONG_USAGE = 64,  ///< EX_USAGE of sysexits.h
};

/// What ends a command early: what to print, and the status to end with.
class CtlError : public std::runtime_error {
public:
    CtlError(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}
    ExitStatus status() const { return status_; }

private:
    ExitStatus status_;
};
