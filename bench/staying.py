"""What bench/compare measures of workers that stay: what they keep, and what follows a death."""
import json
import os
import signal
import subprocess
import time

from servers import children
from tools import AT_ONCE, Memory

MOST_TASKS = 100  # that a worker of the command serves
DEATHS = 5


class Staying:
    """A command with a list that goes on."""

    def __init__(self, run, name):
        self.url, self.count = run.url(name), 0
        self.process = subprocess.Popen(
            [run.programs / "taskman", "get", "--json", f"-j{AT_ONCE}", "-d", run.out, "-i", "-"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=run.messages, text=True)
        self.out = run.out

    def fetch(self, count):
        """Has it fetch as many files, all at once; returns how many seconds that took."""
        begin = time.monotonic()
        for number in range(self.count, self.count + count):
            self.process.stdin.write(f"{self.url}\t{number}\n")
        self.process.stdin.flush()
        while count > 0:
            event = json.loads(self.process.stdout.readline())
            if event["event"] == "end":
                if event["result"] != "finished":
                    raise RuntimeError(event["message"])
                count -= 1
                self.count += 1
        return time.monotonic() - begin

    def workers(self):
        return sorted(children(self.process.pid))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()
        for number in range(self.count):
            (self.out / str(number)).unlink()


def private(workers):
    """MiB that they have written to, together."""
    total = 0.0
    for pid in workers:
        memory = Memory(())
        memory.look(pid)
        total += memory.worker
    return total


def memory_after_many(run, name):
    """Of workers before their last task, to the same after their first. The server must be so slow
    that each of a batch of files has a worker of its own."""
    with Staying(run, name) as staying:
        staying.fetch(AT_ONCE)
        workers, before = staying.workers(), private(staying.workers())
        for _ in range(MOST_TASKS - 2):
            staying.fetch(AT_ONCE)
        # A worker that had more than its share has exited, and another one its place.
        if staying.workers() != workers or len(workers) != AT_ONCE:
            raise RuntimeError("the files went to the workers unevenly")
        return private(workers) / before


def after_death(run, name):
    """Milliseconds from asking for a file to its end, all workers having just been killed as they
    waited; the longest of some."""
    with Staying(run, name) as staying:
        longest = 0.0
        for _ in range(DEATHS):
            staying.fetch(AT_ONCE)
            for pid in staying.workers():
                os.kill(pid, signal.SIGKILL)
            longest = max(longest, staying.fetch(1))
        return 1000 * longest
