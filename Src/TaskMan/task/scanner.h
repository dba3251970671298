// The scanner takes what the workers have reported and calls the tasks back: at least once a
// second, and at once when a worker has ended. taskman.h declares its thread function.
#pragma once

// Starts a scanner when none runs; whether one runs then. It does not look at the map: the
// supervisor must not wait for the map's lock, whose holder may wait for a task's lock that only
// the supervisor can release.
bool StartScanner();

// Ends the pause between two passes, the one that is on or the next: a worker has ended, a code was
// set for one, or the manager is to end. A pause during which g_Exit is set is not cut short.
void EndScannerPause();

// Whether a scanner runs. Its end sets g_end_event.
bool ScannerRuns();
