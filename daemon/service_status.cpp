#include "daemon/service_status.h"

#include "framework/tess_messages.h"

namespace {

struct PortName {
    std::uint32_t port;
    const char* name;
};

constexpr PortName portNames[] = {{PORT_COM2, "com2"}, {PORT_TELNET, "telnet"}, {PORT_IPC, "ipc"}, {PORT_XCP, "xcp"}};

} // namespace

FixedText<128> serviceStatusText(std::uint32_t openPorts)
{
    FixedText<128> text;
    text << "tessd " TESS_VERSION << (openPorts != 0 ? ", ports" : ", no ports");
    for (const PortName& row : portNames)
        if ((openPorts & row.port) != 0) text << ' ' << row.name;
    return text;
}
