// The worker's task intake and its job thread.
#pragma once

// Attaches the section g_ShareName, claims slot g_TaskIndex for this process and runs its job to
// the end. Returns 0 then; or -1, with nothing claimed, when no slot carries the id (a slot whose
// id begins with `szTaskID` counts) or g_TaskIndex is not 0 to 7; a section that had to be made for
// that is removed again. An empty id, or a section that cannot be attached, ends the process with
// the standard assertion. Main thread only, once.
int ParseTask(const char* szTaskID);

// Thread function: carries out the task in `data`, a tagTaskContext; then sets g_exit_download and
// g_Exit. What became of the task is in its slot. Returns null.
void* ParseYoutube(void* data);
