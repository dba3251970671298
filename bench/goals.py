"""The rows of bench/compare that have limits, and the server with uneven and breaking lines."""
import array
import contextlib
import fcntl
import http.server
import re
import socket
import struct
import termios
import threading
import time
from typing import NamedTuple

from option_servers import make_certificates
from servers import Server
from staying import after_death, memory_after_many
from tools import GIB, KIB, MIB

OURS, OURS4, OURS8 = "taskman get", "taskman get -n4", "taskman get -n8"
RATE, RATE4 = "taskman get --limit-rate 8m", "taskman get -n4 --limit-rate 8m"


class Handler(http.server.BaseHTTPRequestHandler):
    """A connection: the second at a time is slow, if the server has a slow line."""
    protocol_version = "HTTP/1.1"

    def setup(self):
        super().setup()
        with self.server.lock:
            self.server.accepted += 1
            slow = self.server.slow > 0 and self.server.accepted > 1 and not self.server.has_slow
            self.server.has_slow |= slow
        self.slow, self.rate = slow, self.server.slow if slow else self.server.rate

    def finish(self):
        super().finish()
        with self.server.lock:
            self.server.accepted -= 1
            self.server.has_slow &= not self.slow

    def log_message(self, *_):
        pass

    def handle(self):
        with contextlib.suppress(ConnectionError):
            super().handle()

    def do_GET(self):
        body = self.server.path.read_bytes()
        begin, end = 0, len(body)
        asked = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        if asked:
            begin, end = int(asked[1]), min(int(asked[2] or end) + 1, end)
            self.send_response(206)
            self.send_header("Content-Range", f"bytes {begin}-{end - 1}/{len(body)}")
        else:
            self.send_response(200)
            self.server.files += 1
        self.send_header("ETag", '"1"')
        self.send_header("Content-Length", str(end - begin))
        self.end_headers()
        breaks = self.server.breaks
        most = len(body) // (breaks + 1) + 1 if breaks else end - begin
        self.send(memoryview(body)[begin:min(end, begin + most)])
        if begin + most < end:
            self.break_off()

    def send(self, body):
        start, piece = time.monotonic(), self.rate // 50 or MIB
        for offset in range(0, len(body), piece):
            try:
                self.wfile.write(body[offset:offset + piece])
            except OSError:  # the tool has closed it
                self.close_connection = True
                return
            with self.server.lock:
                self.server.sent += len(body[offset:offset + piece])
            if self.rate:
                time.sleep(max(0, start + (offset + piece) / self.rate - time.monotonic()))

    def break_off(self):
        """Resets the connection; what is still under way is lost."""
        waiting = array.array("i", [0])
        fcntl.ioctl(self.connection, termios.TIOCOUTQ, waiting)
        with self.server.lock:
            self.server.lost += waiting[0]
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close_connection = True


class Lines(http.server.ThreadingHTTPServer):
    """Serves one file, with a validator, at `rate` bytes a second for each connection, 0 for all
    it can; one connection has the rate `slow`; a file breaks off `breaks` times."""
    daemon_threads = True

    def __init__(self, path, rate=0, slow=0, breaks=0):
        super().__init__(("127.0.0.1", 0), Handler)
        self.path, self.rate, self.slow, self.breaks = path, rate, slow, breaks
        self.port, self.lock = self.server_address[1], threading.Lock()
        self.accepted = self.files = self.sent = self.lost = 0
        self.has_slow = False
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def url(self, name):
        return f"http://127.0.0.1:{self.port}/{name}"

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()


class TlsServer(Server):
    """nginx over https, with an authority of its own."""

    def configure(self, rate):
        super().configure(rate)
        if not (self.state / "ca.pem").exists():
            make_certificates(self.state)
        config = self.state / "config"
        config.write_text(config.read_text().replace(
            f":{self.port};", f":{self.port} ssl; ssl_certificate {self.state}/server.pem; "
            f"ssl_certificate_key {self.state}/server.key;"))
        self.authority = self.state / "ca.pem"

    def url(self, name):
        return f"https://127.0.0.1:{self.port}/{name}"


class Goal(NamedTuple):
    title: str
    value: callable  # of the costs of a turn, by tool, and the server
    limit: float = None  # None: it is told, no more


class Row(NamedTuple):
    title: str
    count: int
    size: int
    tools: tuple
    goals: tuple
    server: callable = None  # of the run and the workload; None: the run's nginx
    on_disk: bool = False
    turn: callable = None  # of the run and a file's name, instead of tools; its goals' `costs`


def processor(limit):
    return (Goal("processor time to curl's", lambda costs, _: costs[OURS]["curl"], limit),
            Goal("processor time to the floor's", lambda costs, _: costs[OURS]["floor"], 1.10))


def to_others(xargs, tools):
    return (Goal("time to xargs curl's", lambda costs, _: costs[OURS]["end to xargs curl"], xargs),
            *(Goal(f"to {tool}'s", lambda costs, _, tool=tool:
                   costs[OURS]["end"] / costs[tool]["end"], 5) for tool in tools))


ROWS = {
    "many": Row(
        "2000 files of 16 KiB, eight at once", 2000, 16 * KIB,
        (OURS, "xargs curl", "curl -Z", "wget2"), to_others(0.10, ("curl -Z", "wget2"))),
    "tls": Row(
        "2000 files of 16 KiB, eight at once, https", 2000, 16 * KIB,
        (OURS, "xargs curl", "curl -Z"), to_others(0.07, ("curl -Z",)),
        lambda run, _: TlsServer("nginx", run.source, run.directory / "tls")),
    "durable": Row(
        "2000 files of 16 KiB, eight at once, to a disk", 2000, 16 * KIB, (OURS, "wget2"),
        (Goal("time to that of wget2, which leaves them to the system",
              lambda costs, _: costs[OURS]["end"] / costs["wget2"]["end"]),), on_disk=True),
    "staying": Row(
        "eight workers that stay, memory", 1, 16 * KIB, (),
        (Goal("after 99 tasks each to after one", lambda ratio, _: ratio, 1.10),),
        lambda run, load: Lines(run.source / load.names[0], 320 * KIB), turn=memory_after_many),
    "killed": Row(
        "workers killed as they wait", 1, 16 * KIB, (),
        (Goal("the next file, ms", lambda longest, _: longest, 50),), turn=after_death),
    "limited": Row(
        "128 MiB, eight connections of 4 MiB/s each", 1, 128 * MIB,
        (OURS8, "aria2c -x8", "axel -n8"),
        (Goal("time to size / (8 x rate)", lambda costs, _: costs[OURS8]["end"] / 4, 1.02),
         Goal("to aria2c's", lambda costs, _: costs[OURS8]["end"] / costs["aria2c -x8"]["end"], 1),
         Goal("to axel's", lambda costs, _: costs[OURS8]["end"] / costs["axel -n8"]["end"], 1)),
        lambda run, _: Server("apache2", run.source, run.directory / "limited", 4 * MIB)),
    "uneven": Row(
        "64 MiB, three connections of 8 MiB/s and one of 1", 1, 64 * MIB, (OURS4,),
        (Goal("time to the ideal", lambda costs, _: costs[OURS4]["end"] * 25 / 64, 1.1),),
        lambda run, load: Lines(run.source / load.names[0], 8 * MIB, slow=MIB)),
    "broken": Row(
        "64 MiB at 32 MiB/s, broken off ten times", 1, 64 * MIB, (OURS,),
        (Goal("bytes sent, but for those under way at a break, to the size",
              lambda _, lines: (lines.sent - lines.lost) / lines.files / (64 * MIB), 1.01),),
        lambda run, load: Lines(run.source / load.names[0], 32 * MIB, breaks=10)),
    "rate": Row(
        "8 files of 10 MiB, all at 8 MiB/s", 8, 10 * MIB, (RATE, RATE4),
        tuple(Goal(f"{title}, difference of the time from size / rate",
                   lambda costs, _, tool=tool: abs(costs[tool]["end"] / 10 - 1), 0.05)
              for title, tool in (("one connection", RATE), ("four connections", RATE4)))),
    "disk": Row("1 GiB, to a disk", 1, GIB, (OURS, "curl", "floor"), processor(0.60), on_disk=True),
    "memory": Row("1 GiB, in memory", 1, GIB, (OURS, "curl", "floor"), processor(0.85)),
    "small": Row(
        "200 files of 16 KiB, eight at once", 200, 16 * KIB, (OURS, "xargs curl"),
        (Goal("time to xargs curl's", lambda costs, _: costs[OURS]["end to xargs curl"], 1.15),)),
    "private": Row(
        "1 GiB, private memory of a worker", 1, GIB, (OURS, OURS8),
        (Goal("one connection, MiB", lambda costs, _: costs[OURS]["worker's"], 2.5),
         Goal("eight connections, MiB", lambda costs, _: costs[OURS8]["worker's"], 4))),
}
