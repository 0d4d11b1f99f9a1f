#pragma once

/// Sleeps for `milliseconds`, also when signals arrive meanwhile. Zero and less: returns at once.
/// Threads: any.
void Sleep(int milliseconds);
