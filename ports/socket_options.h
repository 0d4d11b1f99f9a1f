#pragma once

/// Applies the telnet port's table of socket options (socket(7)) to its listening socket, in order.
/// Results are not checked: a socket with the system's defaults serves as well.
void applySocketOptions(int fd);
