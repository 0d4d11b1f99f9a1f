#pragma once

#include "framework/log_message.h"
#include "framework/orb_attachment_msg.h"

/// What the framework itself logs.
namespace framework_log {

/// The queue could not be opened; the text is that of the exception.
inline constexpr TTraceMsg QUEUE_NOT_OPENED = 250001;

static_assert(MSG_HEADER_BYTES == 16 && MSG_RECORD_BYTES == 8192, "as the next text says");
/// A datagram arrived that is no record: shorter than its four words, or longer than a record.
inline constexpr LogMessage<Number> datagramDropped{250002, "dropped a datagram of {} bytes: a record has 16 to 8192"};
/// The service manager that started the process did not take the message that it is up: its socket,
/// and the system's reason.
inline constexpr LogMessage<Text, Text> managerNotTold{
    250006, "{}: {}: the service manager does not read, and was not told READY=1"};
/// Lines were lost, because nobody took them at once.
inline constexpr LogMessage<Number> linesLost{250008, "{} log lines were lost"};

} // namespace framework_log
