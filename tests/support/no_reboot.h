#pragma once

/// Whatever a test does by mistake, it cannot restart the machine from here on. Threads: call
/// before there is a second one.
void giveUpReboot();
