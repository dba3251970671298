// Progress and speed of a running transfer (CURLOPT_PROGRESSFUNCTION). libcurl calls about once a
// second, and after every read.
#pragma once

// Decides whether the transfer continues, and reports into the slot. `dltotal` are the bytes
// expected (0: not announced), `dlnow` those received; the other arguments are not used. Returns 0
// to continue; or -1, which aborts the transfer, when a stop was requested, g_Exit is set or no
// byte has arrived for 20 seconds. A received count that differs from the one before sets
// g_TryCount to 0. For the download commands reports the first bytes (code 2, once per process) and
// at most once a second the progress in whole percent when it grows (code 4) and the speed in bytes
// per second when it changes (code 5); a slot that is no longer the task's fails the standard
// assertion. Job thread only; what it remembers lasts as long as the process.
int progress_callback(void* clientp, double dltotal, double dlnow, double ultotal, double ulnow);

// The same for libcurl: an exception aborts the transfer.
int OnProgress(void* clientp, double dltotal, double dlnow, double ultotal, double ulnow) noexcept;
