#pragma once

/// Opens those of standard input, output and error that are closed on /dev/null, so that no file or
/// connection ever gets their descriptors. Call before anything else is opened.
void openStdDescriptors();
