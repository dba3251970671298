// Exceptions that nobody catches, for std::set_terminate in a program's main function.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

// Ends the process. When memory has run out, with the line, which a newline ends, on standard error
// and the status, at once; else by SIGABRT. To be called by a terminate handler, on any thread.
[[noreturn]] inline void EndUncaught(const char* withoutMemory, int status) {
    try {
        if (std::current_exception()) throw;
    } catch (const std::bad_alloc&) {
        std::fputs(withoutMemory, stderr);
        _exit(status);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "exception: %s\n", error.what());
    } catch (...) {
    }
    std::abort();
}
