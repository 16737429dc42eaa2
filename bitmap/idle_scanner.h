// The thread that looks for idle bitmaps: a timer that knows nothing of bitmaps.
//
// Threads: any thread but the scanner's own. A caller holds no lock that the scan takes.
#pragma once

namespace zel {

// Calls scan() every ten seconds on a thread of its own until StopIdleScanner; the first time ten
// seconds from now. Not called again before it has been stopped. A failure is logged: nothing is
// then scanned.
void StartIdleScanner(void (*scan)());

// Ends the thread after a running scan and returns when it has ended. Harmless when it is not
// running, and when several threads stop it at once.
void StopIdleScanner();

}  // namespace zel
