#pragma once

#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/local_client.h"

/// A dialogue at the terminal, with history and completion; what tessd sends appears above the line
/// that is being typed. Ctrl-D and \q leave. What is typed goes out byte by byte as it was typed.
/// @throws CtlError  tessd has closed the connection, or there is no terminal
ExitStatus runConsole(LocalPort port);
