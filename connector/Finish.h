#pragma once

// The one way out of the process. Wherever a run is over (a mode done, a
// failure, the tunnel gone), the connector and the tool hand the exit
// status to a Finish and return. In the product that is finishProcess;
// tests pass one that records the status.

#include <functional>

using Finish = std::function<void(int status)>;

// Ends the process with `status` through exit(): its handlers first release
// what the VPN backend holds, then write out the log.
[[noreturn]] void finishProcess(int status);
