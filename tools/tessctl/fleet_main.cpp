// What becomeFleetProgram() becomes.
#include "tools/tessctl/fleet.h"
#include "tools/tessctl/fleet_program.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/standard_output.h"

int main(int argc, char** argv)
try {
    keepStandardDescriptors();
    const FleetCall call = fleetCall(argc, argv);
    return call.what == "send" ? runFleetSend(call.options, call.line) : runFleetStatus(call.options);
} catch (const CtlError& error) {
    say(error.what());
    return error.status();
} catch (const std::exception& error) {
    say(error.what());
    return STATUS_NO_CONNECTION;
}
