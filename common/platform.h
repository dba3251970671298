// What differs from one operating system to the next, in sources of each system (platform_,
// confine_, files_, inspect_ and lending_ with linux.cpp or macos.cpp).
// Nothing else in the tree asks on which system it runs.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/file.h"

namespace platform {

// Stores the path of the running executable, as it was given to exec, with its terminator in
// `buffer`, which has *size bytes. Returns 0; or -1 when it does not fit, *size then holds the
// bytes needed and the buffer is as it was.
int ExecutablePath(char* buffer, std::uint32_t* size);

// Starts a child process and has it run `child(argument)`, which has to end in exec or _exit.
// Returns its process id, in the child's parent only; or -1 when none could be started.
//
// Where the system offers that, the child shares this process's memory until it executes, and the
// calling thread is suspended for as long: a start takes the same time in a small and in a large
// process. So `child` may do only what a signal handler may do, and write nothing but its own
// stack. No handler of atfork runs. The caller blocks all signals around the call, so that no
// signal handler runs in the child. What the child does to its descriptors, signal actions and
// signal mask is its own.
pid_t StartChild(void (*child)(const void* argument), const void* argument);

// Has the next exec close every descriptor above standard error. Safe in a signal handler.
void CloseDescriptorsOnExec();

// Opens a pair of connected stream sockets, which exec closes. Returns 0 or an error number.
int StreamPair(Descriptor& one, Descriptor& other);

// Reserves the memory behind the first `size` bytes of a shared-memory object, so that a later
// write cannot fail. Returns 0 or an error number (ENOSPC when there is no room).
int ReserveSharedMemory(int descriptor, off_t size);

// Waits on a condition, whose mutex the caller holds, for at most `milliseconds` of a
// monotonic clock. Returns 0 when woken, else an error number.
int WaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, int milliseconds);

// Names of all shared-memory objects of the system, without a leading "/"; empty where the system
// cannot list them.
std::vector<std::string> SharedMemoryNames();

// Renames a file in one atomic step, unless `to` exists. Returns 0 or an error number: EEXIST when
// it does; EINVAL, ENOSYS or ENOTSUP where the system or the file system has no such step.
int RenameToNew(const char* from, const char* to);

// A regular file as another process has it open.
struct OpenFile {
    int nDescriptor = -1;              // of that process
    std::int64_t nPosition = -1;       // bytes; -1: not open there, or the system does not tell
    std::int64_t nSize = 0;            // bytes
    std::int64_t nModifiedBefore = 0;  // time of the last write, in a unit of no concern: read
    std::int64_t nModifiedAfter = 0;   // before and after the position was
};

// Looks at the regular file `path` as process `pid` has it open. `nDescriptor` is what the last
// look found, which saves the search for it, or -1. May wait for the file system.
OpenFile LookAtOpenFile(pid_t pid, const std::string& path, int nDescriptor);

// Refers to one process. On Linux from 5.3 on it never means another process that reuses the pid of
// an ended one; elsewhere it may. Copies share what they have of the system. One thread at a time
// for each, but for the const operations.
class ProcessWatch {
  public:
    ProcessWatch() : ProcessWatch(-1) {}
    // `pid`: a value below 1, which a failed start gives, is a process that is gone. A child that
    // was not reaped yet cannot be mistaken for another process.
    explicit ProcessWatch(pid_t pid);

    // Whether the process has ended or never was. A zombie counts as gone when it is a child of
    // this process, or the watch is exact (above).
    bool Gone() const;

    // Sends a signal; does nothing when the process is gone.
    void Signal(int number) const;

    // Reaps the process if it has ended, is a child of this process, and was not reaped yet; does
    // nothing otherwise. Never waits. For programs whose own handler of SIGCHLD cannot be relied
    // on: an ended child stays a zombie until somebody reaps it.
    void Reap() const;

    pid_t Pid() const { return pid_; }

  private:
    friend std::vector<int> WaitForEnd(const std::vector<ProcessWatch>&, const class Waker&, int,
                                       const std::vector<int>&);

    pid_t pid_;
    // Of the process, where the system has such a thing.
    std::shared_ptr<const Descriptor> file_ = std::make_shared<const Descriptor>();
};

// Wakes a thread that waits in WaitForEnd. A Wake() that comes before the wait ends it at once; any
// number of them end one wait. One thread at a time waits with a Waker.
class Waker {
  public:
    // Opens a descriptor or two, which exec closes. When the system has none, waits end early.
    Waker();

    // Any thread may call, and any signal handler; errno is as before.
    void Wake() const;

  private:
    friend std::vector<int> WaitForEnd(const std::vector<ProcessWatch>&, const Waker&, int,
                                       const std::vector<int>&);

    void Forget() const;  // all calls of Wake() until now

    Descriptor reader_{};
    Descriptor writer_{};  // where it is not the same
};

// Waits in the kernel until one of the processes has ended (at once when one is gone already),
// somebody has called waker.Wake(), one of the descriptors in `readable` has something to read or
// is at its end, or `milliseconds`, 0 or more, have passed. It may return early for no reason:
// after a signal, or because the system offers nothing to wait on, and then after 20 milliseconds
// at most. So the caller looks anew in any case: at what belongs to the descriptors that are
// returned, which alone have ended the wait; at everything when none is.
std::vector<int> WaitForEnd(const std::vector<ProcessWatch>& processes, const Waker& waker,
                            int milliseconds, const std::vector<int>& readable = {});

// A process: its id and its arguments, argv[0] first.
struct Process {
    pid_t pid = -1;
    std::vector<std::string> arguments{};
};

// All processes of this user in the process id namespace of this process. Those of other
// namespaces, a container's for example, may be visible, too, but their arguments name ids that
// mean other processes here. Each with its ProcessArguments. Empty where the system does not tell.
std::vector<Process> OwnProcesses();

// The arguments of a process; empty when it is gone, has none, or has 4096 bytes of them and more.
std::vector<std::string> ProcessArguments(pid_t pid);

// Seconds since the process was started; below 0 when it has ended, reaped or not, or the system
// does not tell.
double ProcessAge(pid_t pid);

// Whether the process has the shared-memory object `name` mapped; false where the system does not
// tell.
bool MapsSharedMemory(pid_t pid, const std::string& name);

// Names of all named semaphores of this user, without a leading "/"; none where the system cannot
// list them.
std::vector<std::string> OwnSemaphoreNames();

// Gives the named semaphore a further name. Returns 0 or an error number: EEXIST when something has
// that name, ENOTSUP where the system has no such thing.
int LinkSemaphore(const std::string& name, const std::string& further);

// A descriptor of the named semaphore: to map it with `access` O_RDWR, to know it again with
// O_RDONLY. Returns 0 or an error number: ENOTSUP where the system has no such thing.
int SemaphoreFile(const std::string& name, int access, Descriptor& file);

// The semaphore of such a descriptor, which may be closed then; null when it is none. Until
// UnmapSemaphore.
sem_t* MapSemaphore(int file);
void UnmapSemaphore(sem_t* semaphore);

// Copies bytes out of a shared-memory object, also out of one that has lost them meanwhile: false
// then, and when it never had them.
bool ReadSharedMemory(int descriptor, void* buffer, std::size_t size, off_t offset);

// ---- Files that grow to a known size.

// Reserves room on the disk for the first `size` bytes of the file, whose size stays. Returns 0 or
// an error number: ENOSPC when there is no room, ENOTSUP where it is not possible, or where it
// costs as much as writing (file systems in memory).
int ReserveRoom(int descriptor, off_t size);

// Has the system begin to write what the file has in memory, without waiting for it.
void StartWriting(int descriptor);

// Brings the contents of the file to the disk, not its times. Returns 0 or an error number.
int SyncData(int descriptor);

// Brings all of the file system to the disk that the file is in. Returns 0 or an error number:
// ENOTSUP where the system cannot, or cannot tell that it has failed. A failure that was reported
// to anybody before this file was opened is not reported again.
int SyncFileSystem(int descriptor);

// Whether the system has failed to write this file to the disk since it was opened, unless this
// descriptor was told so before. Returns 0 or an error number. For a file that SyncFileSystem has
// brought to the disk by the descriptor of another one.
int WriteFault(int descriptor);

// ---- What the file system keeps beside the bytes of a file.

constexpr std::size_t ATTRIBUTE_MOST = 2048;  // bytes of a value that is read

// Stores a value as the extended attribute `name` of the file, in place of the one that it has.
// Returns 0 or an error number: ENOTSUP where the file system has no such attributes, ENOSPC or
// E2BIG when the value is too long for it.
int SetAttribute(int descriptor, const char* name, std::string_view value);

// The value of an extended attribute; empty when the file has none of that name, or a longer one.
std::string Attribute(int descriptor, const char* name);

// When the contents of the file were last modified, in nanoseconds since 1970.
std::int64_t Modified(const struct stat& status);

// ---- This process and its machine.

// Bytes of memory that this process has for itself; 0 where the system does not tell. Any call but
// the first needs no right to files.
std::size_t PrivateMemory();

// Changes with each start of the machine; empty where the system does not tell.
std::string BootId();

// ---- What a process gives up.

// What it still needs of the file system. Paths lead through links; those that are not there are
// skipped.
struct Confinement {
    std::vector<std::string> readable{};  // files, and directories with all below them
    std::vector<std::string> writable{};  // the same, to be read as well; in directories regular
                                          // files may be made, and nothing removed or renamed
};

// Takes from the calling thread, and from all threads and processes that it starts later, the right
// to execute anything, to open files but those that are `left`, and, where the system knows that,
// to signal processes outside of these. What is open already stays usable. Processes outside cannot
// be traced, either. Returns 0, or an error number: ENOTSUP where the system has no such thing;
// programs that are executed gain no rights even then. Nothing gives back what was taken.
int Confine(const Confinement& left);

// What Confine takes on this system, in words that do not change: "files"; "truncate", cutting them
// by their name; "devices", controlling those that are opened later; "signals". None where it takes
// nothing.
std::vector<std::string> Confines();

}  // namespace platform
