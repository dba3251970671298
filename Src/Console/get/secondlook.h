// One short look of the command's own at an address whose download failed: the protocol between
// manager and worker carries codes only, and people want a reason.
#pragma once

#include <string>

#include "Console/cli/proxy.h"

// What is expected at an address: only that of a file wants a length.
enum class Wanted { kFile, kPage };

// What is found at the address, in one line: "HTTP 404", libcurl's text, "the server announces no
// length"; empty when nothing speaks against it. Goes through the same proxy, follows redirects
// like a worker, breaks off at the first byte of the body and ends after at most five seconds.
// Blocks; any thread may call.
std::string SecondLook(const std::string& address, const Proxy& proxy,
                       Wanted wanted = Wanted::kFile);
