#pragma once

#include "common/wait_set.h"
#include "connections/port_conn.h"
#include "tests/support/waiting.h"

/// Waits for a connection as the service loop does.
inline void waitForLook(const TPortConn& conn)
{
    WaitSet waits;
    if (conn.wantsInput) waits.addInput(conn.fd);
    waits.addDue(conn.due);
    waits.wait(DEADLINE);
}

/// @return true when the service loop would look at a connection at once
inline bool wouldBeLookedAt(const TPortConn& conn)
{
    WaitSet waits;
    if (conn.wantsInput) waits.addInput(conn.fd);
    waits.wait(std::chrono::milliseconds(0));
    return waits.hasInput(conn.fd) || waits.isDue(conn.due);
}
