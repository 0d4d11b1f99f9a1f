#pragma once

#include "framework/log_message.h"

/// What the bridge logs. Numbers are fixed.
namespace mqtt_log {

inline constexpr LogMessage<Text, Text> started{55000, "bridge of device {} to broker {}"};
inline constexpr LogMessage ended{55001, "Normal application exit"};
inline constexpr LogMessage<Text> settingsWrong{55002, "{}"};
inline constexpr LogMessage<Text> connected{55010, "connected to broker {}"};
inline constexpr LogMessage<Text> lost{55011, "no connection to the broker: {}"};
inline constexpr LogMessage<Text> notSubscribed{55012, "the broker does not let this device subscribe to {}"};
inline constexpr LogMessage daemonThere{55020, "connected to tessd"};
inline constexpr LogMessage<Text> daemonAway{55021, "no connection to tessd: {}"};
inline constexpr LogMessage<Text> noQueue{55022, "tessd is not asked for its state: {}"};
inline constexpr LogMessage<Text> ignored{55030, "a request was ignored: {}"};
inline constexpr LogMessage<Number> answersLost{55031, "answers that no broker has taken in time, or too many: {}"};
inline constexpr LogMessage<Text> windowNotKept{
    55032, "{} cannot be used: requests of before a restart of the bridge are not known again"};

} // namespace mqtt_log
