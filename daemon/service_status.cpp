#include "daemon/service_status.h"

#include "common/port_name.h"

FixedText<128> serviceStatusText(std::uint32_t openPorts)
{
    FixedText<128> text;
    text << "tessd " TESS_VERSION << (openPorts != 0 ? ", ports" : ", no ports");
    for (const std::uint32_t port : {PORT_COM2, PORT_TELNET, PORT_IPC, PORT_XCP})
        if ((openPorts & port) != 0) text << ' ' << portName(port);
    return text;
}
