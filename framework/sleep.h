#pragma once

/// Sleeps for `milliseconds`, also when signals arrive meanwhile. Threads: any.
void Sleep(int milliseconds);
