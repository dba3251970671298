#include "common/thread.h"

#include <csignal>
#include <initializer_list>

int StartThread(pthread_t* thread, void* (*routine)(void*), void* argument, bool detached) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes,
                                detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    // A fault of the thread itself is for the program's crash handler.
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(thread, &attributes, routine, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
    return error;
}
