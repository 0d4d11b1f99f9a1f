#pragma once

/// How often `operator new` has been called in this process, by any thread.
unsigned allocationCount();
