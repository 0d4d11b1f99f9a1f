#include "tools/tess-mqtt/mqtt_log_severity.h"

#include "tools/tess-mqtt/mqtt_log.h"

LogSeverity mqttLogSeverity(TTraceMsg id, const char* /*text*/)
{
    switch (id) {
    case mqtt_log::settingsWrong.id:
        return LogSeverity::error;
    case mqtt_log::lost.id:
    case mqtt_log::notSubscribed.id:
    case mqtt_log::daemonAway.id:
    case mqtt_log::noQueue.id:
    case mqtt_log::ignored.id:
    case mqtt_log::answersLost.id:
    case mqtt_log::windowNotKept.id:
        return LogSeverity::warning;
    default:
        return LogSeverity::information;
    }
}
