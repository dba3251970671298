"""Runs taskman and curl with the same request, each in a directory of its own."""
import itertools
import json
import os
import shlex
import subprocess
import time
import traceback
from pathlib import Path
from urllib.parse import quote

from option_servers import PASSWORD, USER

TASKMAN = Path(__file__).resolve().parent.parent / "build/bin/taskman"


class Case:
    """One function of option_check, with a directory of its own; `site` serves files with
    `content`."""
    numbers = itertools.count(1)

    def __init__(self, name, top, site, content):
        self.name, self.site, self.content = name, site, content
        self.home = top / f"{name}{next(self.numbers)}"
        self.home.mkdir()
        http, login = f"http://127.0.0.1:{site.port}", f"{USER}:{quote(PASSWORD, safe='')}"
        self.words = {
            "http": http, "http_login": http.replace("//", f"//{login}@"),
            "localhost": f"http://localhost:{site.port}", "tls": f"https://127.0.0.1:{site.tls}",
            "mutual": f"https://127.0.0.1:{site.mutual}", "proxy": f"127.0.0.1:{site.port}",
            "page": "http://www.youtube.com/watch?v=", "state": site.state,
            "ca": f"--cacert {site.state}/ca.pem",
            "login": shlex.join(("-u", f"{USER}:{PASSWORD}")),
            "secrets": "-H 'Authorization: Bearer s3sAm3' -H 'Cookie: a=b'"}

    def ensure(self, holds, *what):
        if not holds:
            raise AssertionError(" ".join(map(str, what)))

    def wait_for(self, holds, what):
        deadline = time.monotonic() + 60
        while not holds():
            self.ensure(time.monotonic() < deadline, what())
            time.sleep(0.02)

    def get(self, line, status=0, **more):
        """Runs taskman get --json; its reports of files are `ends` then."""
        run = Run(self, [TASKMAN, "get", "--json"], line, **more)
        self.ensure(run.end() == status, f"status {run.status}, not {status}:", run)
        events = map(json.loads, run.out.splitlines())
        run.ends = [event for event in events if event["event"] == "end"]
        return run

    def curl(self, line, **more):
        run = Run(self, ["curl", "-sSfLO"], line.replace("-n 4", ""), **more)
        run.end()
        return run


class Run:
    """A command in an empty directory. Its line names the servers by the keys of Case.words; every
    address gets the number of this run, which stands in the servers' logs. With `behind`, another
    run, it has that one's directory and number."""
    numbers = itertools.count(1)

    def __init__(self, case, command, line, behind=None, env=None):
        self.case = case
        self.number = behind.number if behind else str(next(self.numbers))
        self.directory = case.home / self.number
        self.directory.mkdir(exist_ok=True)
        self.words = [*command, *map(self.number_of, shlex.split(
            line.format(number=self.number, **case.words)))]
        clean = {name: value for name, value in os.environ.items() if not name.lower().endswith(
            ("_proxy", "ssl_cert_file", "ssl_cert_dir", "curl_ca_bundle"))}
        self.process = subprocess.Popen(
            self.words, cwd=self.directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env={**clean, "HOME": str(case.site.state), **(env or {})})

    def number_of(self, word):
        joint = "&" if "?" in word else "?"
        return f"{word}{joint}t={self.number}" if word.startswith("http") else word

    def end(self):
        self.out, self.err = self.process.communicate(timeout=300)
        self.status = self.process.returncode
        return self.status

    def files(self):
        return {path.name: path.read_bytes() for path in self.directory.iterdir()}

    def requests(self, *fields):
        return [tuple(line[field] for field in fields)
                for line in self.case.site.requests(self.number)]

    def __str__(self):
        words = " ".join(shlex.quote(str(word)) for word in self.words)
        return f"{words}\n{self.out.decode(errors='replace')}{self.err.decode(errors='replace')}"


def run_case(top, site, content, function, *row):
    """What it found wrong, or None."""
    case = Case(function.__name__, top, site, content)
    try:
        function(case, *row)
    except Exception as what:
        place = traceback.extract_tb(what.__traceback__)[1]
        file = Path(place.filename).name
        return f"option_check: {case.name}: {file}, line {place.lineno}: {what}"
    return None
