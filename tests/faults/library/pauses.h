#pragma once

/// Random pauses in front of and behind every call that this library stands in front of, so that
/// threads meet at other moments than they would. TESS_PAUSES holds three decimal numbers with
/// colons between:
///
///     SEED:OF_1000:MICROSECONDS
///
/// so many of 1000 times the thread sleeps, for at most so long, and as many times it yields.
/// Threads: any, and signal handlers. errno is kept.
void pauseAtRandom();
