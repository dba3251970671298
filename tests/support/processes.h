// Programs under a test: any one, the command `taskman`, and the worker, whose manager is the test.
#pragma once

#include <fcntl.h>
#include <pty.h>
#include <sys/mman.h>
#include <termios.h>

#include <csignal>
#include <cstring>
#include <new>
#include <stdexcept>

#include "TaskMan/othermanagers.h"
#include "TaskMan/taskcontext.h"
#include "TaskMan/tasktext.h"
#include "common/fieldtext.h"
#include "common/platform.h"
#include "support/helpers.h"

namespace test_support {

// A program that runs in a directory of its own. Standard output and standard error go to files;
// with columns given, standard error and standard input are a terminal. It is killed, if it still
// runs, at the end of the scope. For one thread.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess() {
        Kill();
        if (terminal_ != -1) close(terminal_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    int input = -1;   // descriptor of standard input; -1 is that of the test
    int output = -1;  // of standard output; -1 is a file
    // Settings, each "NAME=value", before those of the test, whose proxies are left out.
    std::vector<std::string> environment{"TERM=xterm", "LC_ALL=C"};

    // `command`: the program's path and its arguments.
    void Start(std::vector<std::string> command, int columns = 0) {
        std::vector<std::string> settings = environment;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const std::string name(*entry, std::strcspn(*entry, "="));
            const bool proxy = name.ends_with("_proxy") || name.ends_with("_PROXY");
            if (!proxy) settings.push_back(*entry);
        }
        // All is ready before the fork: a child of a program with threads may wait for ever for a
        // lock that one of them had, that of the memory among them.
        const std::vector<char*> argv = Pointers(command), envp = Pointers(settings);
        const std::string out = scratch_.Path("out"), err = scratch_.Path("err"), at = Path();
        const winsize size{24, static_cast<unsigned short>(columns), 0, 0};
        pid_ = columns > 0 ? forkpty(&terminal_, nullptr, nullptr, &size) : fork();
        if (pid_ == 0) {
            // Terminals of other runs among them.
            platform::CloseDescriptorsOnExec();
            // Whoever runs the tests in the background has these ignored; the program would obey.
            for (const int number : {SIGINT, SIGHUP}) signal(number, SIG_DFL);
            if (output == -1) output = open(out.c_str(), O_WRONLY | O_CREAT, 0600);
            dup2(output, STDOUT_FILENO);
            if (input != -1) dup2(input, STDIN_FILENO);
            if (columns == 0) dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
            if (chdir(at.c_str()) == 0) execve(argv[0], argv.data(), envp.data());
            _exit(99);
        }
        if (terminal_ != -1) fcntl(terminal_, F_SETFL, O_NONBLOCK);
    }
    void Signal(int number) const { kill(pid_, number); }
    void Kill() {
        if (Ended()) return;
        Signal(SIGKILL);
        waitpid(pid_, &status_, 0);
    }
    // False when it has not ended by the deadline.
    bool Wait(std::chrono::milliseconds deadline = std::chrono::minutes(1)) {
        return WaitUntil([this] { return Ended(); }, deadline);
    }
    // Waits for the end and tells it: "exit 0", "signal 2", "running".
    std::string End() {
        if (!Wait()) return "running";
        if (WIFSIGNALED(status_)) return "signal " + std::to_string(WTERMSIG(status_));
        return "exit " + std::to_string(WEXITSTATUS(status_));
    }

    pid_t Pid() const { return pid_; }
    std::string Path(const std::string& name = "") const { return directory_.Path(name); }
    std::string Files() const { return directory_.Names(); }
    std::string Out() const { return ReadFile(scratch_.Path("out")); }
    std::string Err() {
        if (terminal_ == -1) return ReadFile(scratch_.Path("err"));
        char bytes[4096];
        for (ssize_t count; (count = read(terminal_, bytes, sizeof bytes)) > 0;) {
            terminal_text_.append(bytes, static_cast<std::size_t>(count));
        }
        return terminal_text_;
    }
    // Waits until `text` stands in Err(); false when it never does.
    bool Says(const std::string& text) {
        return WaitUntil([&] { return Has(Err(), text); });
    }
    // On the terminal, and whether that shows it.
    void Type(char key) const { EXPECT_EQ(write(terminal_, &key, 1), 1); }
    bool Echoes() const {
        termios settings{};
        EXPECT_EQ(tcgetattr(terminal_, &settings), 0);
        return (settings.c_lflag & ECHO) != 0;
    }

  private:
    static std::vector<char*> Pointers(std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        for (std::string& text : texts) pointers.push_back(text.data());
        pointers.push_back(nullptr);
        return pointers;
    }
    bool Ended() {
        Err();  // a terminal that nobody reads holds the program up
        return pid_ == -1 || status_ != -1 || waitpid(pid_, &status_, WNOHANG) == pid_;
    }

    TempDir directory_;
    TempDir scratch_;
    pid_t pid_ = -1;
    int status_ = -1;  // as waitpid tells; -1 while it runs
    int terminal_ = -1;
    std::string terminal_text_;
};

// The real command.
class CommandRun : public ChildProcess {
  public:
    explicit CommandRun(std::string verb = "get") : verb_(std::move(verb)) {}
    ~CommandRun() {
        Kill();
        for (const std::string& name : SharedNames()) shm_unlink(name.c_str());
    }

    void Start(std::vector<std::string> arguments, int columns = 0) {
        arguments.insert(arguments.begin(), {TASKMAN_PATH, verb_});
        ChildProcess::Start(std::move(arguments), columns);
    }
    // Names in shared memory that the run has made: its section and its locks.
    std::vector<std::string> SharedNames() const {
        char lock[16];
        std::snprintf(lock, sizeof lock, "sem.%06x", static_cast<unsigned>(Pid()));
        std::vector<std::string> names = platform::SharedMemoryNames();
        std::erase_if(names, [&](const std::string& name) {
            return name != SectionName(Pid()) && !name.starts_with(lock);
        });
        return names;
    }
    // Process id of a worker; waits until one has claimed its slot.
    pid_t Worker() const {
        pid_t pid = -1;
        WaitUntil([&] {
            for (const OtherTask& task : ListTasks()) {
                if (task.nManagerPid == Pid()) pid = task.nPid;
            }
            return pid > 0;
        });
        return pid;
    }

  private:
    const std::string verb_;
};

// The real worker, met at the binary interface only. Its section has mode 0600 and is all zero but
// for a constructed record that carries `id` in slot `index`; section and lock are removed at the
// end. For one thread, but for UnderLock() and Stop().
class WorkerRun : public ChildProcess {
  public:
    explicit WorkerRun(int index = 2, const std::string& id = UniqueName("task"))
        : index_(index), id_(id) {
        // Above every process id, so that several sections can live side by side.
        static std::atomic<int> number{(1 << 30) + (getpid() & 0xfffff) * 1024};
        environment.clear();
        arguments = {id, std::to_string(index), std::to_string(number++)};
        section_ = SHARE_MEM_NAME + ("_" + arguments[2]);
        const int section = shm_open(section_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        lock_ = sem_open(id.c_str(), O_CREAT | O_EXCL, 0600, 1);
        if (lock_ == SEM_FAILED || ftruncate(section, SHARE_MEM_SIZE) != 0) {
            throw std::runtime_error("no section or no lock");
        }
        mapping_ = static_cast<char*>(
            mmap(nullptr, SHARE_MEM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, section, 0));
        close(section);
        SetField((new (&Slot()) tagTaskContext)->szTaskID, id);
    }
    ~WorkerRun() {
        Kill();  // before its names are removed: it would make them anew
        munmap(mapping_, SHARE_MEM_SIZE);
        shm_unlink(section_.c_str());
        sem_close(lock_);
        sem_unlink(id_.c_str());
    }

    // The live slots, the task's and others.
    tagTaskContext& Slot(int index) const { return *SlotAt({0, mapping_, nullptr}, index); }
    tagTaskContext& Slot() const { return Slot(index_); }
    // Fills the slot with a download (command 1) of `url`: 3 tries without pauses into Output().
    void Request(const std::string& url) {
        Slot().nCmd = TASK_CMD_DOWNLOAD;
        Slot().nTaskKind = Slot().nTryInterval = 0;
        SetField(Slot().szDownloadUrl, url);
        SetField(Slot().szFilePath, Output());
    }
    // The same with the resolution (command 0) of `page`, through a proxy on 127.0.0.1.
    void RequestPage(int port, const std::string& page = "http://www.youtube.com/watch?v=ID") {
        Request("");
        Slot().nCmd = TASK_CMD_PARSE;
        SetField(Slot().szOrgUrl, page);
        UseProxy(port);
    }
    void UseProxy(int port, const std::string& user = "", const std::string& password = "") {
        SetField(Slot().szProxyHost, "127.0.0.1");
        SetField(Slot().szProxyUser, user);
        SetField(Slot().szProxyPassword, password);
        Slot().nProxyPort = port;
        Slot().bUseProxy = 1;
    }
    std::string Output() const { return Path("output"); }
    const std::string& Section() const { return section_; }

    // What the worker gets: task id, slot index, number of the manager.
    std::vector<std::string> arguments;
    std::string program = TARNWICK_PATH;
    int columns = 0;  // with any, it has a terminal

    void Start() {
        atStart_.assign(mapping_, SHARE_MEM_SIZE);
        std::vector<std::string> command = arguments;
        command.insert(command.begin(), program);
        ChildProcess::Start(std::move(command), columns);
    }
    // Starts the worker, unless it runs, and expects an end in good order: status 0, no message,
    // the lock free, and its name gone unless the worker was confined, and nothing changed beside
    // the slot.
    void EndWell() {
        if (Pid() == -1) Start();
        EXPECT_EQ(End(), "exit 0");
        EXPECT_EQ(Err(), "");
        EXPECT_TRUE(ChangedBy([this](tagTaskContext& slot) { CopySlot(&slot, &Slot()); }));
        EXPECT_TRUE(Slot().nReserved1 == TASK_EXTENDED || SemaphoreValue(id_) == -1);
        int value = -1;
        sem_getvalue(lock_, &value);
        EXPECT_EQ(value, 1);
    }

    using Step = std::function<void(tagTaskContext&)>;
    // Calls `step` with the live slot while holding the task's lock.
    void UnderLock(const Step& step) const {
        EXPECT_TRUE(WaitUntil([this] { return sem_trywait(lock_) == 0; }));
        step(Slot());
        sem_post(lock_);
    }
    void Stop() const {
        UnderLock([](tagTaskContext& slot) { StoreControl(slot, TASK_CONTROL_STOP); });
    }
    // Whether the section has the bytes of Start(), but for what `change` does to the slot.
    bool ChangedBy(const Step& change) const {
        std::string expected = atStart_;
        change(*SlotAt({0, expected.data(), nullptr}, index_));
        return expected == std::string(mapping_, SHARE_MEM_SIZE);
    }

  private:
    const int index_;
    const std::string id_;
    std::string section_;
    char* mapping_ = nullptr;
    sem_t* lock_ = nullptr;
    std::string atStart_;  // all bytes of the section
};

}  // namespace test_support
