#include "connections/socket_ipc_conn.h"

#include <cstring>

#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/line_rules.h"
#include "tests/support/stream_pair.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    StreamPair pair;
    TSocketIPCConn conn(8, 0xBB01'0000);
    conn.fd = pair.releaseServer();
    std::string inFlight;
    while (!input.empty()) {
        const std::string sent = input.chunk(3000);
        fuzzCheck(sent.empty() || pair.send(sent), "the test can send");
        inFlight += sent;

        const int count = conn.readCmd();
        const std::string read = inFlight.substr(0, 1024);
        inFlight.erase(0, read.size());
        fuzzCheck(conn.rxLen == static_cast<int>(read.size()), "as many bytes are read as there are, up to 1024");
        const std::string_view beforeNul(read.c_str());
        std::vector<std::string> lines;
        if (read.size() < 1024 || beforeNul.find('\n') == std::string_view::npos) lines = linesByRules(read, true);
        fuzzCheck(count == static_cast<int>(lines.size()), "the number of lines is what the rules give");
        for (std::size_t i = 0; i < lines.size(); ++i) {
            fuzzCheck(conn.cmds[i].text >= conn.rxBuf.data() && conn.cmds[i].text < conn.rxBuf.data() + read.size(),
                      "a line begins inside what was read");
            fuzzCheck(conn.cmds[i].text == lines[i], "a line is what the rules give");
            fuzzCheck(conn.cmds[i].tag == 0, "a line has tag 0");
        }
    }
    fuzzCheck(pair.received().empty(), "nothing is echoed");
    return 0;
}
