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
    {PathOf::queueDirectory, ENAMETOOLONG, "TESS_QUEUE_DIR is longer than a path may be"},
    {PathOf::daemonQueue, ENAMETOOLONG, "TESS_QUEUE_DIR is too long, a socket's path has 107 bytes at most"},
    {PathOf::daemonQueue, ENOENT, "is tessd running?"},
    {PathOf::daemonQueue, ECONNREFUSED, "tessd has ended without cleaning up; start it again"},
    {PathOf::daemonQueue, EACCES, "are you in group tess?"},
    {PathOf::daemonQueue, EPROTOTYPE, "something else holds tessd's address"},
    {PathOf::ownQueue, EADDRINUSE, "another process holds that address; choose another one with --address"},
    {PathOf::ownQueue, ENAMETOOLONG, "TESS_QUEUE_DIR is too long, a socket's path has 107 bytes at most"},
    {PathOf::ownQueue, ENOTSOCK, "something that is no queue has that name; remove it"},
    {PathOf::localSocket, ENOENT, "is tessd running, and with this port?"},
    {PathOf::localSocket, ECONNREFUSED, "tessd has ended without cleaning up; start it again"},
    {PathOf::localSocket, EACCES, "are you in group tess?"},
    {PathOf::localSocket, EPROTOTYPE, "something else holds tessd's path"},
    {PathOf::localSocket, ETIMEDOUT, "tessd takes no connections: is it stuck?"},
    {PathOf::telnet, ETIMEDOUT, "tessd takes no connections: is it stuck?"},
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
    if (error == EMFILE) text += ": this process may open no more files (ulimit -n)";
    return text;
}
