#pragma once

#include <functional>

/// Runs something that computes or waits for long in a thread of its own, which nobody waits for:
/// it may outlive the daemon and must own what it uses. Signals that ask for something are left to
/// the other threads.
/// @return false: no thread could be made, and nothing runs
/// Threads: any.
bool startOwnThread(std::function<void()> work) noexcept;
