// Stands in for the `send` of Wine's sockets. Test bench only.
//
// Wine's RPC server waits for a TCP connection that takes no more for a moment with the event on
// which another of its threads waits for the next request; one of the two wakes, often the wrong
// one, and the answer stays where it is until the client gives up. A `send` that waits by itself
// never lets it come to that.
#pragma once

namespace zel::sim {

// Puts it in place of the system's for the whole process. To be called while no other thread runs.
void InstallPatientSend();

}  // namespace zel::sim
