// The worker's task intake and its job thread.
#pragma once

// Attaches the section g_ShareName, claims slot g_TaskIndex for this process, reads the request of
// an extended task, starts the job thread, which carries it out with all that may follow it
// (nexttask.h), and waits until g_exit_download is set: at once when the job thread sets it, within
// a second when somebody else does. Then deletes the task's lock and returns 0. Returns -1, with
// nothing claimed, when no slot carries the id (a slot whose id begins with `szTaskID` counts) or
// g_TaskIndex is not 0 to 7; a section that had to be created is removed again then. A null or
// empty id, or a section that cannot be attached, fails the standard assertion. Main thread only,
// once.
int ParseTask(const char* szTaskID);

// Thread function: carries out the task in `data`, a tagTaskContext that outlives it and is not an
// extended task's; then sets g_exit_download and g_Exit. The outcome is in the slot, except that
// nothing is reported when libcurl provides no handle. Returns null. A null `data` fails the
// standard assertion.
void* ParseYoutube(void* data);
