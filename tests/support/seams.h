// Functions of the system that a test replaces: what happens too rarely to wait for. For one source
// of a program.
#pragma once

#include <dlfcn.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>

#include "support/helpers.h"

static std::string g_synced;  // what the directory held at the time of fsync
static std::string g_at;      // the directory
static long g_refused = -1;   // a system call that the kernel does not know
static uid_t g_user = 0;
static std::atomic<int> g_sleeps{0};
static std::function<void(struct statvfs&)> g_look;  // at a disk

extern "C" int fsync(int) {
    g_synced += test_support::NamesIn(g_at);
    return 0;
}
extern "C" unsigned sleep(unsigned) {
    ++g_sleeps;
    return 0;
}
// Six arguments are passed on, of which the caller has given fewer: a sanitizer would object.
extern "C" __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
    if (number == g_refused) return errno = EINVAL, -1;
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a) argument = va_arg(list, long);
    va_end(list);
    static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
extern "C" int statvfs(const char*, struct statvfs* disk) noexcept {
    *disk = {};
    disk->f_frsize = disk->f_blocks = 1000;
    disk->f_bfree = 100;
    disk->f_bavail = 10;
    if (g_look) g_look(*disk);
    return 0;
}
extern "C" uid_t geteuid() noexcept {
    return g_user;
}
