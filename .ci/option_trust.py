"""Cases of .ci/option_check: who learns what. Logins, secrets, certificates, proxies, addresses."""
import base64
import json
import os
import pty
import signal
import subprocess
import time
from pathlib import Path
from urllib.parse import quote

from option_servers import PASSWORD, USER, Site
from servers import children
from side_by_side import TASKMAN, Run


def digest_logins(case):
    for kind in ("apache2", "lighttpd"):
        with Site(kind, case.site.root, case.home / kind) as site:
            runs = []
            for password, status in ((PASSWORD, 0), ("wrong", 1)):
                line = f"-u {USER}:'{password}' {site.url('digest/file')}"
                runs.append((case.get(line, status), case.curl(f"--anyauth {line}")))
        for ours, curls in runs:
            logs = site.requests(ours.number), site.requests(curls.number)
            statuses = [[line["status"] for line in log] for log in logs]
            case.ensure(statuses[0] == statuses[1], statuses, ours, curls)
            case.ensure(len(statuses[0]) == 2 and ours.files() == curls.files(), statuses, ours)


def ranges_behind_redirects(case):
    """Later requests begin at the address that the first has led to: nothing may leak there."""
    fields = ("port", "host", "status", "authorization", "cookie")
    for way in ("host", "port"):
        for secret in ("{secrets}", "{login}", "--netrc"):
            run = case.get(f"-n 4 {secret} {{http}}/to/{way}/file")
            requests = run.requests(*fields)
            there = [r for r in requests if r[:2] != (str(case.site.port), "127.0.0.1")]
            case.ensure(len(there) > 1, "one request at the other address", requests, run)
            case.ensure(all(r[2:] == (206, "", "") for r in there), requests, run)
    for secret, place in (("{secrets}", "file"), ("{login}", "basic/file")):
        run = case.get(f"-n 4 {secret} {{http}}/to/path/{place}")
        got = [r for r in run.requests(*fields) if r[2] == 206]
        case.ensure(len(got) > 1 and all(r[3] for r in got), run.requests(*fields), run)
    # To curl the other port is the machine of the netrc file, too.
    run = case.get("-n 4 --netrc {http}/to/port/basic/file", 1)
    case.ensure(run.requests("status", "authorization")[-1] == (401, ""), run)


def secrets(case):
    """What only the server may see, while a download runs and afterwards."""
    credentials = f"{USER}:{PASSWORD}"
    forbidden = [PASSWORD.encode(), quote(PASSWORD, safe="").encode(), b"s3sAm3",
                 base64.b64encode(credentials.encode())]
    (case.home / "login").write_text(credentials + "\n")
    (case.home / "headers").write_text("Authorization: Bearer s3sAm3\nCookie: a=s3sAm3\n")
    (case.home / "list").write_text("{http_login}/basic/slow/file\n".format(**case.words))
    runs = [Run(case, [TASKMAN, "get", "--json", "-v"], line) for line in (
        f"-u @{case.home}/login {{http}}/to/path/basic/slow/file",
        f"-H @{case.home}/headers {{http}}/slow/file",
        "--netrc {http}/basic/slow/file",
        f"-i {case.home}/list --failed failed")]
    told = []
    for run in runs:
        record = run.directory / "file.part.info"
        case.wait_for(lambda: record.exists() and record.stat().st_size > 0,
                      lambda: f"no record: {run.words} {run.process.poll()}")
        told.append(record.read_bytes())
        pids = [run.process.pid, *children(run.process.pid)]
        case.ensure(len(pids) == 2, "processes", pids)
        told += [Path(f"/proc/{pid}/cmdline").read_bytes() for pid in pids]
    told.append(subprocess.run([TASKMAN, "top", "--json"], capture_output=True, check=True).stdout)
    for run in runs:
        run.process.send_signal(signal.SIGINT)
        run.end()
        told += [run.out, run.err]
    for text in told:
        for secret in forbidden:
            case.ensure(secret not in text, secret, "is in", text)
    failed = runs[-1].directory / "failed"
    case.ensure(PASSWORD not in failed.read_text() and
                quote(PASSWORD, safe="") in failed.read_text(), failed.read_text())
    case.ensure(failed.stat().st_mode & 0o777 == 0o600, oct(failed.stat().st_mode))


def tls_variables(case):
    own, other = (f"{case.site.state}/{name}.pem" for name in ("ca", "stranger"))
    for bundle, file, line, status in (
            (own, "", "{tls}/file", 0), ("", own, "{tls}/file", 0), (own, other, "{tls}/file", 0),
            (other, own, "{tls}/file", 1), (other, other, f"--cacert {own} {{tls}}/file", 0)):
        env = {"CURL_CA_BUNDLE": bundle, "SSL_CERT_FILE": file}
        ours, curls = case.get(line, status, env=env), case.curl(line, env=env)
        case.ensure((curls.status == 0) == (status == 0) and ours.files() == curls.files(),
                    env, ours, curls)
    for quiet in ("", "-q"):
        run = case.get(f"--insecure {quiet} {{tls}}/file")
        case.ensure(b"warning: certificates of servers are not checked" in run.err, run)


def tls_sessions(case):
    """Further connections to a server need no whole handshake."""
    run = case.get("-n 4 {ca} {tls}/slow/file")
    case.ensure(("r",) in run.requests("resumed"), run.requests("resumed"), run)


def locked_key(case):
    """Nobody is asked for the password of a key, though there is a terminal to ask at."""
    state, key = case.site.state, case.home / "key"
    subprocess.run(["openssl", "rsa", "-aes128", "-passout", "pass:word", "-in",
                    state / "client.key", "-out", key], check=True, capture_output=True)
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(TASKMAN, [TASKMAN, "get", "-d", case.home, "--cacert", state / "ca.pem", "--cert",
                           state / "client.pem", "--key", key, case.words["mutual"] + "/file"])
    end, said = time.monotonic() + 20, b""
    while b"private key" not in said and time.monotonic() < end:
        said += os.read(terminal, 4096)  # the display is drawn several times a second
    os.close(terminal)
    os.waitpid(pid, 0)
    case.ensure(b"private key" in said, "it asks:", said)


def info_headers(case):
    """nginx plays the proxy that leads to the site."""
    run = Run(case, [TASKMAN, "info", "--json"], "-x {proxy} -H 'X-Key: value' {page}{number}")
    case.ensure(run.end() == 0 and json.loads(run.out)["title"] == "name", run)
    asked = run.requests("uri", "x")
    case.ensure(asked == [("/get_video_info", "value")], asked)


def proxies(case):
    with Site("tinyproxy", case.site.root, case.home / "proxy") as proxy:
        for excepted, direct in (("", False), ("127.0.0.1:{0.port}", True),
                                 ("127.0.0.1:{0.other}", False), ("127.0.0.0/8", True),
                                 ("10.0.0.0/8", False), ("127.0.0.1", True), ("*", True),
                                 ("localhost, 127.0.0.1", True), ("27.0.0.1", False)):
            env = {"http_proxy": proxy.url(""), "no_proxy": excepted.format(case.site)}
            run = case.get("{http}/file", env=env)
            via = run.requests("via")
            case.ensure(len(via) == 1 and (via[0][0] == "") == direct, env, via, run)


def malformed(case):
    for address in ("http://", "http://:80/x", "http://[fe80::zz]/x", "http://127.0.0.1:99999/x",
                    "http://127.0.0.1:abc/x", "http://127.0.0.1:80:90/x", "http://a%20b/x",
                    "http://user@/x", "'http://a<b/x'"):
        ours, curls = case.get(address, 2), case.curl(address)
        case.ensure(curls.status == 3 and ours.ends[0]["id"] is None, curls, ours)


CASES = (secrets, digest_logins, ranges_behind_redirects, tls_variables, tls_sessions, locked_key,
         info_headers, proxies, malformed)
