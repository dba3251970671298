"""The lanes of .ci/kill_campaign: what all have in common, and those that fetch lists."""
import json
import os
import random
import re
import signal
import subprocess
import threading
import time
from pathlib import Path

from servers import Server, children

TASKMAN = Path(__file__).resolve().parent.parent / "build/bin/taskman"


def state_of(pid):
    """As the system tells it: Z of one that nobody has waited for; empty when it is gone."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(") ")[1][0]
    except OSError:
        return ""


def alive(pid):
    return state_of(pid) not in ("", "Z")


def signal_to(pid, number):
    """False when there is no such process: on a busy machine it may have ended meanwhile."""
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        return False
    return True


class Lane(threading.Thread):
    """A thread with a server and directories of its own. `fetch(server)` is its work."""

    def __init__(self, name, kind, rate, directory):
        super().__init__(name=name)
        self.kind, self.rate, self.random = kind, rate, random.Random(name)
        self.root, self.got, self.state = directory / "root", directory / "got", directory / "state"
        self.root.mkdir(parents=True)
        self.got.mkdir()
        self.fault, self.commands = None, set()  # process ids

    def run(self):
        try:
            with Server(self.kind, self.root, self.state, self.rate) as server, \
                    (self.state / "get").open("w") as self.messages:
                self.fetch(server)
            self.look_back(server)
        except Exception as fault:  # of the thread, whichever it is
            self.fault = f"{self.name}: {fault!r}\n{(self.state / 'get').read_text()[-2000:]}"

    def look_back(self, server):
        """Once the server has stopped."""

    def expect(self, holds, what):
        if not holds:
            raise AssertionError(what)

    def wait_for(self, holds, what):
        """Returns how many seconds it took. Only a hang meets the deadline."""
        begin = time.monotonic()
        while not holds():
            self.expect(time.monotonic() < begin + 300, what)
            time.sleep(0.002)
        return round(time.monotonic() - begin, 2)

    def shared_names(self):
        """What its commands have in /dev/shm."""
        own = re.compile("|".join(f".*_{pid}|sem\\.{pid:06x}.*" for pid in self.commands))
        return list(filter(own.fullmatch, os.listdir("/dev/shm")))

    def wait_for_end(self, workers):
        return self.wait_for(lambda: not any(map(alive, workers)),
                             "a worker outlives its command")


WAITING, HANDED, WORKING = "killed waiting", "at a hand-over", "at work"
STOPPED, ORPHANED = "stopped", "orphaned waiting"


class ListLane(Lane):
    """Lists of small files, which the command reads batch by batch; its workers stay meanwhile."""
    COLUMNS = (WAITING, HANDED, WORKING, STOPPED, ORPHANED, "files", "died")

    def __init__(self, kind, rounds, seed, directory):
        super().__init__(f"{kind} lists seed={seed}", kind, 0, directory)
        self.title, self.rounds = kind, rounds
        self.figures = dict.fromkeys(self.COLUMNS, 0)

    def fetch(self, server):
        for number in range(self.rounds):
            self.contents, self.ends, self.workers, self.may_die = {}, {}, set(), 0
            self.begin(server, number)
            acts = [self.kill_waiting, self.kill_handed, self.kill_working] * 2
            self.random.shuffle(acts)
            last = ((self.stop_handed,), (self.feed_late, self.kill_command_waiting),
                    (self.kill_command_working,))
            try:
                for act in (self.feed, *acts, *last[number % len(last)]):
                    act()
                self.end()
            finally:
                self.command.kill()
            self.fetch_rest()

    def begin(self, server, number):
        self.address, self.number = server.url(""), number
        self.command = subprocess.Popen(
            [TASKMAN, "get", "--json", "-j8", "-d", self.got, "-i", "-"], text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.messages)
        self.reader = threading.Thread(target=self.read, args=(self.command.stdout,))
        self.reader.start()

    def read(self, lines):
        for event in map(json.loads, filter(lambda line: line.endswith("\n"), lines)):
            if event["event"] == "end":
                self.ends[Path(event["path"]).name] = event["result"]

    def feed(self):
        """Gives the command some more files."""
        for _ in range(self.random.randint(8, 24)):
            name = f"{self.number}-{len(self.contents)}"
            self.contents[name] = self.random.randbytes(self.random.randrange(1 << 16))
            (self.root / name).write_bytes(self.contents[name])
            self.command.stdin.write(f"{self.address}{name}\n")
        self.command.stdin.flush()

    def waiting(self):
        """The slots of the workers that wait, by process id, and the slots that have a task."""
        top = subprocess.run([TASKMAN, "top", "--json", str(self.command.pid)], text=True,
                             stdout=subprocess.PIPE, stderr=self.messages, check=True)
        rows = list(map(json.loads, top.stdout.splitlines()[1:]))
        self.workers |= {row["pid"] for row in rows if row["pid"]}
        return ({row["pid"]: row["slot"] for row in rows if row["event"] == "worker"},
                {row["slot"] for row in rows if row["event"] == "task"})

    def settle(self):
        self.wait_for(lambda: len(self.ends) == len(self.contents), "a file does not end")

    def stop_waiting(self):
        """Stops the waiting worker that gets the next task; returns its process id and slot."""
        until = time.monotonic() + 20
        while True:
            self.expect(time.monotonic() < until, "no worker waits")
            self.settle()
            workers, _ = self.waiting()
            if not workers:  # after the time of all of them, or the deaths of all
                self.feed()
                continue
            pid = min(workers, key=workers.get)
            signal_to(pid, signal.SIGSTOP)
            self.wait_for(lambda: state_of(pid) in ("T", "Z", ""), "a worker runs on")
            if pid in self.waiting()[0] and state_of(pid) == "T":
                return pid, workers[pid]

    def kill(self, pid, kind):
        self.figures[kind] += signal_to(pid, signal.SIGKILL)
        # The manager sees to its dead at once.
        self.wait_for(lambda: state_of(pid) == "", "a killed worker is not reaped")

    def kill_waiting(self):
        pid, _ = self.stop_waiting()
        if self.random.random() < 0.5:
            self.kill(pid, WAITING)
            self.feed()
        else:  # while the command reads on
            feeder = threading.Timer(self.random.uniform(0, 0.001), self.feed)
            feeder.start()
            time.sleep(self.random.uniform(0, 0.002))
            self.kill(pid, WAITING)
            feeder.join()

    def hand_over(self):
        """A waiting worker is stopped and gets a task; returns its process id."""
        pid, slot = self.stop_waiting()
        self.handed = time.monotonic()
        self.feed()
        self.wait_for(lambda: slot in self.waiting()[1], "a worker gets no task")
        return pid

    def kill_handed(self):
        self.kill(self.hand_over(), HANDED)
        self.feed()

    def stop_handed(self):
        pid = self.hand_over()
        self.figures[STOPPED] += 1
        self.wait_for(lambda: state_of(pid) == "", "a deaf worker stays")
        self.expect(time.monotonic() - self.handed > 4,
                    "a worker that is stopped is not given its time")
        self.stop_waiting()  # and it has to go with the command

    def feed_late(self):
        """At about the time when the workers have waited for long enough and exit."""
        self.settle()
        time.sleep(2 + self.random.uniform(-0.02, 0.02))
        self.feed()

    def wait_for_work(self):
        """Until some worker has the file of a task open; returns the process ids of those."""
        def works(pid):
            try:
                return any(os.readlink(file).startswith(f"{self.got}/")
                           for file in Path(f"/proc/{pid}/fd").iterdir())
            except OSError:  # it has just closed it, or exited
                return False
        time.sleep(self.random.uniform(0, 0.01))
        while True:
            self.feed()
            while len(self.ends) < len(self.contents):
                if workers := list(filter(works, children(self.command.pid))):
                    return workers

    def kill_working(self):
        workers = self.wait_for_work()
        self.may_die += 1
        self.kill(self.random.choice(workers), WORKING)

    def kill_command_waiting(self):
        self.stop_waiting()  # the next command has to kill this one
        self.figures[ORPHANED] += len(self.waiting()[0])
        self.command.kill()

    def kill_command_working(self):
        self.workers.update(self.wait_for_work(), children(self.command.pid))
        self.command.kill()
        # The next command waits a second for a part that one of them has; a disk may take longer.
        self.wait_for_end(self.workers)

    def end(self):
        self.command.stdin.close()
        status = self.command.wait(timeout=300)
        self.reader.join()
        died = list(self.ends.values()).count("died")
        self.figures["files"] += len(self.contents)
        self.figures["died"] += died
        # Who kills a worker between two tasks costs no file.
        self.expect(died <= self.may_die, f"{died} files died, and {self.may_die} workers at work")
        self.expect(set(self.ends.values()) <= {"finished", "died"}, f"{self.ends}")
        if status != -signal.SIGKILL:
            self.expect(status == (1 if died else 0), f"status {status}")
            self.expect(len(self.ends) == len(self.contents), "a file is not reported")
            self.expect(not any(map(alive, self.workers)), "a worker outlives its command")
        self.check_files(name for name, end in self.ends.items() if end == "finished")

    def check_files(self, names):
        for name in names:
            self.expect((self.got / name).read_bytes() == self.contents[name], f"{name} differs")

    def fetch_rest(self):
        """The same list once more, undisturbed: it comes to its end, and nothing stays."""
        whole = self.state / "list"
        whole.write_text("".join(f"{self.address}{name}\n" for name in self.contents))
        subprocess.run([TASKMAN, "get", "-s", "-j8", "-d", self.got, "-i", whole], timeout=300,
                       stdout=subprocess.DEVNULL, stderr=self.messages, check=True)
        self.check_files(self.contents)
        self.wait_for_end(self.workers)
        self.expect(set(os.listdir(self.got)) == set(self.contents),
                    f"left: {set(os.listdir(self.got)) - set(self.contents)}")
        self.commands.add(self.command.pid)
        self.expect(not (names := self.shared_names()), f"left in /dev/shm: {names}")
        for name in self.contents:
            (self.got / name).unlink()
            (self.root / name).unlink()
