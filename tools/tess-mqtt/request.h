#pragma once

#include <optional>
#include <string>

#include "common/instant.h"
#include "tools/tess-mqtt/command_filter.h"
#include "tools/tess-mqtt/publication.h"
#include "tools/tess-mqtt/reply.h"
#include "tools/tess-mqtt/topics.h"

/// A command line that is to be carried out, and where its answer goes.
struct Request {
    std::string responseTopic;
    std::optional<std::string> correlation;
    std::string line; ///< without an end
    Instant arrived{};
    Instant expires = NEVER; ///< not to be begun from then on
};

/// What is to become of a publication.
struct Judgement {
    std::optional<Request> request;   ///< nothing: it is none, or nobody could be told what became of it
    std::optional<Reply> refusal{};   ///< why the request is not carried out
    const char* whyIgnored = nullptr; ///< why there is no request
};

/// Judges what a broker has delivered.
Judgement judge(const Publication& publication, const Topics& topics, const CommandFilter& filter, Instant now);
