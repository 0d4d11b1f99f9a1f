#include "tools/tessctl/likely_cause.h"

#include <cerrno>
#include <system_error>

namespace {

struct Cause {
    PathOf what;
    int error;
    const char* text;
};

constexpr Cause CAUSES[] = {
    {PathOf::queueDirectory, ENOENT, "is tessd running, and with the same TESS_QUEUE_DIR?"},
    {PathOf::queueDirectory, EACCES, "are you in group tess?"},
    {PathOf::queueDirectory, ENOTDIR, "TESS_QUEUE_DIR names something that is no directory"},
    {PathOf::daemonQueue, ENOENT, "is tessd running?"},
    {PathOf::daemonQueue, ECONNREFUSED, "tessd has ended without cleaning up; start it again"},
    {PathOf::daemonQueue, EACCES, "are you in group tess?"},
    {PathOf::daemonQueue, EPROTOTYPE, "something else holds tessd's address"},
    {PathOf::ownQueue, EADDRINUSE, "another process holds that address; choose another one with --address"},
    {PathOf::localSocket, ENOENT, "is tessd running, and with this port?"},
    {PathOf::localSocket, ECONNREFUSED, "tessd has ended without cleaning up; start it again"},
    {PathOf::localSocket, EACCES, "are you in group tess?"},
    {PathOf::localSocket, EPROTOTYPE, "something else holds tessd's path"},
    {PathOf::telnet, ECONNREFUSED, "is tessd running, and with the telnet port?"},
    {PathOf::serialLine, ENOENT, "this device has no second serial line"},
};

} // namespace

std::string failureText(std::string_view path, int error, PathOf what)
{
    std::string text(path);
    text += ": " + std::generic_category().message(error);
    for (const Cause& cause : CAUSES)
        if (cause.what == what && cause.error == error) return text + ": " + cause.text;
    return text;
}
