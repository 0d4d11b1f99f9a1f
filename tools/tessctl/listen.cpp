#include "tools/tessctl/listen.h"

#include <cerrno>
#include <iostream>

#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/registration.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/standard_output.h"

ExitStatus runListen(const ListenOptions& options)
{
    DaemonClient daemon(options.address);
    Registration registration(daemon, options.name, options.ports, options.takeOver ? Keep::takeOver : Keep::whileFree);
    say("listening as " + options.name + " at address " + std::to_string(daemon.queueId()));
    TOrbAttachmentMsg record;
    int error = 0;
    for (std::uint64_t seen = 0;
         !stopAsked() && (options.count == 0 || seen < options.count) && error == 0 && !outputIsUnread();) {
        const std::size_t bytes = registration.receive(record);
        if (bytes == 0) continue;
        ++seen;
        std::cout << (options.raw ? hexDump(record, bytes) : describe(record, bytes)) << '\n';
        error = flushOutput();
    }
    (void)registration.end();
    if (error != 0 && error != EPIPE) failOutput(error);
    return STATUS_DONE;
}
