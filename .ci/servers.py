"""Web servers as people run them: each in the foreground, on a free port of 127.0.0.1."""
import os
import random
import re
import signal
import subprocess
import sys
import time
from pathlib import Path

KINDS = ("nginx", "apache2", "lighttpd", "python3")

NGINX = """{user}
daemon off; pid {state}/pid; error_log {state}/errors; worker_processes auto; events {{ }}
http {{ log_format sent $body_bytes_sent; access_log {state}/log sent; sendfile on; tcp_nopush on;
    client_body_temp_path {state}/t; proxy_temp_path {state}/t; fastcgi_temp_path {state}/t;
    uwsgi_temp_path {state}/t; scgi_temp_path {state}/t; limit_rate {rate};
    server {{ listen 127.0.0.1:{port}; root {root}; }} }}
"""
APACHE = """{user}
ServerName localhost
Listen 127.0.0.1:{port}
ServerRoot {state}
DefaultRuntimeDir {state}
PidFile {state}/pid
ErrorLog {state}/errors
LoadModule mpm_event_module /usr/lib/apache2/modules/mod_mpm_event.so
LoadModule authz_core_module /usr/lib/apache2/modules/mod_authz_core.so
LoadModule env_module /usr/lib/apache2/modules/mod_env.so
LoadModule ratelimit_module /usr/lib/apache2/modules/mod_ratelimit.so
LogFormat %O sent
CustomLog {state}/log sent
DocumentRoot {root}
{limit}
"""
LIGHTTPD = """
server.document-root = "{root}"
server.bind = "127.0.0.1"
server.port = {port}
server.errorlog = "{state}/errors"
mimetype.assign = ("" => "application/octet-stream")
server.modules = ("mod_accesslog")
accesslog.filename = "{state}/log"
accesslog.format = "%b"
connection.kbytes-per-second = {kib}
"""
PYTHON = """
import http.server, time
class Handler(http.server.SimpleHTTPRequestHandler):
    def copyfile(self, source, output):
        while piece := source.read({rate} // 20 or 1 << 20):
            output.write(piece)
            time.sleep(0.05 if {rate} else 0)
http.server.test(Handler, http.server.ThreadingHTTPServer, port={port}, bind="127.0.0.1")
"""

# Whoever runs this in the background has it ignored, and so would the programs that it starts.
signal.signal(signal.SIGINT, signal.default_int_handler)
os.umask(0o022)  # servers may have a user of their own


def children(pid):
    """The process ids of its children."""
    found = []
    for path in Path(f"/proc/{pid}/task").glob("*/children"):
        try:
            found += map(int, path.read_text().split())
        except OSError:
            pass
    return found


def some_port():
    """None that the system gives to connections. That it is free shows when a server binds it."""
    return random.randrange(20000, 32000)


def listeners(port):
    """The sockets that take connections to a port of 127.0.0.1, as the links in /proc name them."""
    lines = map(str.split, Path("/proc/net/tcp").read_text().splitlines())
    return {f"socket:[{line[9]}]" for line in lines
            if line[1] == f"0100007F:{port:04X}" and line[3] == "0A"}


def files_of(pid):
    """What the descriptors of a process lead to."""
    found = set()
    for link in Path(f"/proc/{pid}/fd").glob("*"):
        try:
            found.add(os.readlink(link))
        except OSError:
            pass
    return found


class Server:
    """Serves the directory `root`, with `rate` bytes a second for each connection, 0 for all."""

    def __init__(self, kind, root, state, rate=0):
        state.mkdir()
        self.kind, self.root, self.state = kind, root, state
        for _ in range(20):
            self.ports = [self.port] = [some_port()]
            self.configure(int(rate))
            if self.start():
                return
        sys.exit(f"{kind} does not start: {(state / 'messages').read_text()}")

    def configure(self, rate):
        names = {"port": self.port, "root": self.root, "state": self.state, "rate": rate,
                 "kib": rate >> 10, "user": "", "limit": ""}
        config = self.state / "config"
        if self.kind == "nginx":
            names["user"] = "user root;" if os.geteuid() == 0 else ""
            text, self.command = NGINX, ["nginx", "-e", self.state / "errors", "-c", config]
        elif self.kind == "apache2":
            names["user"] = "User www-data\nGroup www-data" if os.geteuid() == 0 else ""
            if rate:
                names["limit"] = f"SetOutputFilter RATE_LIMIT\nSetEnv rate-limit {rate >> 10}"
            text, self.command = APACHE, ["apache2", "-D", "FOREGROUND", "-f", config]
        elif self.kind == "lighttpd":
            text, self.command = LIGHTTPD, ["lighttpd", "-D", "-f", config]
        else:
            text, self.command = PYTHON, [sys.executable, config]
        config.write_text(text.format(**names))

    def start(self):
        with (self.state / "messages").open("wb") as messages:
            self.process = subprocess.Popen(
                self.command, cwd=self.root, stdin=subprocess.DEVNULL, stdout=messages,
                stderr=messages, start_new_session=True,
                env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})
        for _ in range(2000):
            files = files_of(self.process.pid)
            if all(files & listeners(port) for port in self.ports):
                return True
            if self.process.poll() is not None:
                return False
            time.sleep(0.01)
        self.stop()
        return False

    def stop(self, how=15):
        """Sends `how` to all its processes; 9 breaks off what is being sent. The last of them may
        end after the first, and has the ports until then."""
        sockets = files_of(self.process.pid)
        try:
            os.killpg(self.process.pid, how)
        except ProcessLookupError:
            pass
        self.process.wait()
        for _ in range(2000):
            if not any(sockets & listeners(port) for port in self.ports):
                break
            time.sleep(0.01)

    def url(self, name):
        return f"http://127.0.0.1:{self.port}/{name}"

    def sent(self):
        """Bytes sent, of apache2 with headers, once it has stopped. 0 of python3."""
        log = self.state / "log"
        return sum(map(int, re.findall(r"^(\d+)\n", log.read_text(), re.M))) if log.exists() else 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()
