"""The tools that bench/compare lets fetch the same files, and what each of their runs costs."""
import contextlib
import filecmp
import os
import re
import subprocess
import sys
import threading
import time
from pathlib import Path

from servers import Server

PACKAGES = {"nginx": "nginx-light", "apache2": "apache2-bin", "curl": "curl", "wget": "wget",
            "wget2": "wget2", "aria2c": "aria2", "axel": "axel"}
OURS = ("worker", "taskman get")
TOOLS = ("floor", "floor, 8 KiB writes", *OURS, "curl", "xargs curl", "curl -Z", "wget", "wget2",
         "aria2c", "axel")
AT_ONCE = 8
KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
SECTION = r" /dev/shm/.*\n(?:[A-Z].*\n)*?Private_Dirty: +(\d+)"


def commands(tool, run, names):
    """What `tool` is started with for the files `names`; eight commands run at once.

    All are quiet, none keeps the server's date or reserves the file's place first. What cannot
    fetch several files at once by itself is started eight times.
    """
    urls = [run.url(name) for name in names]
    out, program = run.out, run.programs
    shares = [urls[i::AT_ONCE] for i in range(min(AT_ONCE, len(urls)))]
    authority = getattr(run.server, "authority", None)
    trust = ["--cacert", authority] if authority else []
    curl = ["curl", "-sS", *trust, "--remote-name-all", "--output-dir", out]
    floor = [[program / "bench_floor", str(run.server.port), f"/{n}", out / n] for n in names]
    return {
        "floor": lambda: floor,
        "floor, 8 KiB writes": lambda: [command + ["8192"] for command in floor],
        "worker": lambda: [[program / "bench_fetch", program / "tarnwick"] +
                           [part for n in names for part in (run.url(n), out / n)]],
        **{f"taskman get{option}": lambda option=option: [
            [program / "taskman", "get", "-j8", *trust, *option.split(), "-d", out] + urls]
           for option in ("", " -n4", " -n8", " --limit-rate 8m", " -n4 --limit-rate 8m",
                          " --fresh-workers")},
        "curl": lambda: [curl + share for share in shares],
        "xargs curl": lambda: [["xargs", "-a", run.write_list(urls), "-P8", "-n1", "curl", "-sO",
                                *trust, "--output-dir", out]],
        "curl -Z": lambda: [curl + ["-Z", "--parallel-max", "8"] + urls],
        "wget": lambda: [["wget", "-q", "--no-use-server-timestamps", "-P", out] + share
                         for share in shares],
        "wget2": lambda: [["wget2", "-q", "--max-threads=8", "-P", out,
                           *(f"--ca-certificate={path}" for path in trust[1:])] + urls],
        "aria2c": lambda: [["aria2c", "-q", "--file-allocation=none", "-j8", "-Z", "-d", out] +
                           urls],
        "aria2c -x8": lambda: [["aria2c", "-q", "--file-allocation=none", "-x8", "-s8", "-k1M",
                                "-d", out] + urls],
        "axel": lambda: [["axel", "-q", "-o", out / n, run.url(n)] for n in names],
        "axel -n8": lambda: [["axel", "-q", "-n8", "-o", out / n, run.url(n)] for n in names],
    }[tool]()


class Workload:
    def __init__(self, count, size):
        self.count, self.size, self.small = count, size, size < MIB
        self.names = [f"{size}-{i}" for i in range(count)]
        size = f"{size // KIB} KiB" if self.small else f"{size // MIB} MiB"
        self.title = f"One file of {size}" if count == 1 else f"{count} files of {size}"
        self.unit = "ms per file" if self.small else "s per GiB"

    def cost(self, seconds):
        """Processor time in the unit of the workload."""
        return seconds * (1000 / self.count if self.small else GIB / (self.size * self.count))


class Memory(threading.Thread):
    """Looks at the processes of a run every 20 ms, and keeps the largest figures in MiB.

    Private is what a process has written to: what a further process like it would cost. Pages of
    programs and libraries are shared as soon as there are two.
    """

    def __init__(self, pids):
        super().__init__(daemon=True)
        self.pids, self.over = pids, threading.Event()
        self.private = self.resident = self.worker = 0

    def run(self):
        while not self.over.wait(0.02):
            for pid in list(self.pids):
                self.look(pid)

    def look(self, pid):
        try:
            # A process between fork and exec still has the memory of this one.
            forked = os.path.samefile(f"/proc/{pid}/exe", sys.executable)
            worker = os.readlink(f"/proc/{pid}/exe").endswith("/tarnwick")
            memory = Path(f"/proc/{pid}/smaps_rollup").read_text()
            maps = Path(f"/proc/{pid}/smaps").read_text() if worker else ""
            children = [p.read_text() for p in Path(f"/proc/{pid}/task").glob("*/children")]
        except OSError:
            return
        kib = dict(re.findall(r"^(\w+): +(\d+)", memory, re.M))
        if kib and not forked:
            private = int(kib["Private_Dirty"]) / KIB
            section = sum(map(int, re.findall(SECTION, maps))) / KIB
            self.private = max(self.private, private)
            if worker:  # a further one would share the section's pages
                self.worker = max(self.worker, private - section)
            self.resident = max(self.resident, int(kib["Rss"]) / KIB)
        for child in " ".join(children).split():
            self.look(child)


class Run:
    """A server in a directory of its own, and the tools at work there."""

    def __init__(self, build, directory):
        self.programs, self.directory = build / "bin", directory
        self.out, self.source = directory / "out", directory / "source"
        self.out.mkdir()
        self.source.mkdir()
        self.messages = (directory / "messages").open("wb")
        self.server = None

    def __enter__(self):
        self.server = self.nginx = Server("nginx", self.source, self.directory / "nginx")
        return self

    def __exit__(self, *_):
        self.nginx.stop()

    def url(self, name):
        return self.server.url(name)

    def write_list(self, urls):
        path = self.directory / "list"
        path.write_text("\n".join(urls) + "\n")
        return path

    @contextlib.contextmanager
    def files(self, workload):
        """The server has the files of the workload meanwhile."""
        first = self.source / workload.names[0]
        block = os.urandom(min(workload.size, MIB))
        with first.open("wb") as file:
            for offset in range(0, workload.size, len(block)):
                file.write(block[:workload.size - offset])
        # The validators of a file that is a second old are weak.
        os.utime(first, (time.time() - 100,) * 2)
        for name in workload.names[1:]:
            os.link(first, self.source / name)
        yield
        for name in workload.names:
            (self.source / name).unlink()

    def measure(self, tool, workload, compare_bytes=False):
        """Lets the tool fetch the files; returns what that cost."""
        waiting, running, user, system = commands(tool, self, workload.names), {}, 0.0, 0.0
        memory = Memory(running)
        if workload.count < 1000:  # the looks would cost such files more than they cost themselves
            memory.start()
        begin = time.time()
        while waiting or running:
            while waiting and len(running) < AT_ONCE:
                process = subprocess.Popen(waiting.pop(0), stdin=subprocess.DEVNULL,
                                           stdout=subprocess.DEVNULL, stderr=self.messages)
                running[process.pid] = process
            pid, status, usage = os.wait4(-1, 0)
            if status != 0 or pid not in running:
                memory.over.set()
                sys.exit(f"compare: {tool} failed:\n{Path(self.messages.name).read_text()}")
            running.pop(pid).returncode = 0
            user, system = user + usage.ru_utime, system + usage.ru_stime
        end = time.time() - begin
        memory.over.set()
        if memory.is_alive():
            memory.join()
        last = max(self.arrival(name, begin, tool, compare_bytes) for name in workload.names)
        return {"cpu": workload.cost(user + system), "user": workload.cost(user), "last": last,
                "end": end, "wait": 1000 * (end - last), "private": memory.private,
                "resident": memory.resident, "worker's": memory.worker}

    def arrival(self, name, begin, tool, compare_bytes):
        """Seconds from `begin` to the last write to the file, which is checked and removed."""
        path, source = self.out / name, self.source / name
        if not path.exists() or path.stat().st_size != source.stat().st_size or (
                compare_bytes and not filecmp.cmp(path, source, shallow=False)):
            sys.exit(f"compare: {tool} did not fetch {name}")
        status = path.stat()
        path.unlink()
        # A tool that gives the file the server's date does so when it is complete.
        return (status.st_mtime if status.st_mtime > begin else status.st_ctime) - begin
