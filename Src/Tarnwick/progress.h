// Progress and speed of a running transfer: libcurl calls about once a second, and more often while
// data moves.
#pragma once

// Decides whether the transfer goes on and keeps the slot informed. `dltotal` are the bytes
// expected (0: not announced), `dlnow` those received; the rest is not used. Returns 0 to go on; -1
// to break the transfer off, because a stop was asked, g_Exit is set or nothing has come for 20
// seconds. New bytes, from the second count on, set g_TryCount to 0. For the download commands it
// reports the first bytes (code 2, once in the life of the process), and at most once a second the
// whole percentage when it grows (code 4) and the speed when it changes (code 5); a slot that is no
// longer the task's ends the process with the standard assertion. Job thread only; its memory lasts
// as long as the process.
int progress_callback(void* clientp, double dltotal, double dlnow, double ultotal, double ulnow);

// The same as libcurl's progress function: lets no exception through.
int OnProgress(void* clientp, double dltotal, double dlnow, double ultotal, double ulnow) noexcept;
