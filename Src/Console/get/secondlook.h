// A short request of the command's own to an address whose download failed: the protocol between
// manager and worker carries codes only, and people want a reason.
#pragma once

#include <string>

#include "Console/cli/proxy.h"

// What is expected at an address: only a file must have a length.
enum class Wanted { kFile, kPage };

// What is wrong at the address, in one line: "HTTP 404", libcurl's text, "the server announces no
// length"; empty when nothing is. Uses the same proxy, follows redirects like a worker, breaks off
// at the first byte of the body and takes at most five seconds. Any thread may call.
std::string SecondLook(const std::string& address, const Proxy& proxy,
                       Wanted wanted = Wanted::kFile);
