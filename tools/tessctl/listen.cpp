#include "tools/tessctl/listen.h"

#include <iostream>

#include "framework/tess_messages.h"
#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/say.h"

ExitStatus runListen(const ListenOptions& options)
{
    TDaemonClient daemon(options.address);
    daemon.registerAs(options.name, options.ports);
    say("listening as " + options.name + " at address " + std::to_string(daemon.queueId()));
    TOrbAttachmentMsg record;
    for (std::uint64_t seen = 0; !stopAsked() && (options.count == 0 || seen < options.count);) {
        const std::size_t bytes = daemon.receive(record);
        if (bytes == 0) continue;
        ++seen;
        std::cout << (options.raw ? hexDump(record, bytes) : describe(record, bytes)) << '\n' << std::flush;
    }
    daemon.send(MSG_UNREGISTER, 0, 0, "");
    return STATUS_DONE;
}
