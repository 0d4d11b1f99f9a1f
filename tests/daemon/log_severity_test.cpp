#include "daemon/log_severity.h"

#include <gtest/gtest.h>

#include "daemon/service_status.h"
#include "framework/tess_messages.h"

namespace {

struct SeverityCase {
    TTraceMsg id;
    const char* text;
    LogSeverity severity;
};

constexpr SeverityCase severityCases[] = {
    {51000, "Command listener daemon running", LogSeverity::information},
    {51008, "Error runtime", LogSeverity::error},
    {251525, "Unable to create COM2 command port", LogSeverity::error},
    {251525, "Unable XCP command port", LogSeverity::error},
    // Texts that share a number.
    {36104, "Initialize XCP socket connection", LogSeverity::information},
    {36104, "Error on opt SO_RCVBUF: Invalid argument", LogSeverity::warning},
    {250003, "Received RESET command.", LogSeverity::information},
    {250003, "Full cmd buffer (>1k) without a newline received. Discarding", LogSeverity::warning},
    {250009, "Received SIGTERM, proceeding with orderly shutdown", LogSeverity::information},
    {250009, "Segmentation fault detected after milestone 17", LogSeverity::error},
    {250005, "Error forking for reboot: Cannot allocate memory", LogSeverity::error},
    {250005, "Error forcing reboot: Operation not permitted", LogSeverity::error},
    {251526, "Failed login, password invalid ", LogSeverity::warning},
    {251526, "Invalid login state (9) reached, closing connection", LogSeverity::error},
    {251526, "Timeout during connection login, state = 1", LogSeverity::information},
    {1, "Error runtime", LogSeverity::information}, // another process's
};

struct StatusCase {
    std::uint32_t openPorts;
    const char* text;
};

constexpr StatusCase statusCases[] = {
    {0, "tessd " TESS_VERSION ", no ports"},
    {PORT_COM2 | PORT_TELNET | PORT_XCP | PORT_IPC, "tessd " TESS_VERSION ", ports com2 telnet ipc xcp"},
    {PORT_XCP, "tessd " TESS_VERSION ", ports xcp"},
};

} // namespace

TEST(DaemonLogSeverity, GoesByTheTextToo)
{
    for (const SeverityCase& row : severityCases)
        EXPECT_EQ(static_cast<char>(row.severity), static_cast<char>(daemonLogSeverity(row.id, row.text)))
            << row.id << ' ' << row.text;
}

TEST(ServiceStatus, NamesTheVersionAndTheOpenPorts)
{
    for (const StatusCase& row : statusCases)
        EXPECT_EQ(row.text, serviceStatusText(row.openPorts).view());
}
