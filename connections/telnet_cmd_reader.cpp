#include "connections/telnet_cmd_reader.h"

using telnet::Front;

void TelnetCmdReader::restart(Instant now, std::chrono::seconds bound)
{
    reached_ = Front::nothing;
    step_ = now + STEP_TIME;
    bound_ = now + bound;
}

TelnetCmdReader::Result TelnetCmdReader::readTelnetCmd(std::span<const telnet::Byte> input, Instant now)
{
    const auto [front, length] = telnet::scan(input);
    if (front == Front::data) return {Read::data, 0};
    const bool isCommand = front == Front::command && now < bound_;
    const Front reached = isCommand ? Front::nothing : front;
    // Also when the time was over already: what is there has come in time, and was only looked at
    // late.
    if (isCommand || reached != reached_) step_ = now + STEP_TIME;
    reached_ = reached;
    if (isCommand) return {Read::command, length};
    return {now < due() ? Read::incomplete : Read::timeOut, 0};
}
