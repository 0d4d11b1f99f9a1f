#pragma once

#include <string>

/// What became of a request, as the user property `status` of its answer says it.
enum class ReplyStatus {
    answered, ///< all answers have come, and none says that a command failed
    refused,  ///< the bridge, tessd or a process did not carry it out, and says why
    timeout,  ///< no answer in time: it may have been carried out or not. Or it was too old to begin
    busy,     ///< there was no room for it: it was not carried out
};

const char* wordOf(ReplyStatus status);

struct Reply {
    ReplyStatus status = ReplyStatus::answered;
    std::string text;
};
