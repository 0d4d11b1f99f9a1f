#pragma once

#include <string>

/// Gives this process a network of its own, with nothing but a loopback interface: a test may
/// listen on the device's TCP port. Call in main(), behind enterPrivateMounts().
void enterPrivateNetwork();

/// @return why the network is not private, for the message of a test that is skipped; empty when it
///         is
const std::string& privateNetworkProblem();
