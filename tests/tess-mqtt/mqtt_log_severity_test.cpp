#include "tools/tess-mqtt/mqtt_log_severity.h"

#include <gtest/gtest.h>

TEST(MqttLogSeverity, IsAnErrorWhereTheBridgeEndsAndAWarningWhereSomethingDoesNotWork)
{
    constexpr struct {
        TTraceMsg id;
        LogSeverity severity;
    } cases[] = {
        {55000, LogSeverity::information}, {55001, LogSeverity::information}, {55002, LogSeverity::error},
        {55010, LogSeverity::information}, {55011, LogSeverity::warning},     {55012, LogSeverity::warning},
        {55020, LogSeverity::information}, {55021, LogSeverity::warning},     {55022, LogSeverity::warning},
        {55030, LogSeverity::warning},     {55031, LogSeverity::warning},     {55032, LogSeverity::warning},
        {51008, LogSeverity::information}, // another process's
    };
    for (const auto& [id, severity] : cases)
        EXPECT_EQ(mqttLogSeverity(id, "text"), severity) << id;
}
