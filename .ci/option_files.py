"""Cases of .ci/option_check: which files there are afterwards, their names and their rights."""
import hashlib
import os
import time

from side_by_side import TASKMAN, Run

AGE = 1000  # seconds: old enough for a date to be a proof
NAMES = (  # what a server may call a file, and the name of the file then; curl has the first ones
    ('attachment; filename="plain.bin"', "plain.bin"),
    ("inline; filename=bare", "bare"),
    ('attachment; filename="../../outside"', "outside"),
    ('attachment; filename="/etc/passwd"', "passwd"),
    ('attachment; filename="with blank; and \\"quotes\\""', 'with blank; and "quotes"'),
    ("attachment; filename=old; filename*=UTF-8''na%C3%AFve", "naïve"),
    ('attachment; filename=".bashrc"', "bashrc"),
    ("attachment; filename*=UTF-8''..%2F..%2F.profile", "profile"),
    ('attachment; filename=".."', "file"),
    ("attachment", "file"))


def newer(case):
    """-N downloads what the server or somebody here has changed, and nothing else."""
    for folder in ("newer", "tagless/newer"):
        path, line = case.site.root / folder / "file", f"-N {{http}}/{folder}/file"
        first, codes = case.get(line), [(200,)]
        there = first.directory / "file"

        def again(code, content):
            run = case.get(line, behind=first)
            codes.append((code,))
            case.ensure(run.requests("status") == codes, run.requests("status"), codes, run)
            case.ensure(run.files() == {"file": content}, list(run.files()), run)
        again(304, case.content)
        # A tag that is none is not sent; the date stays.
        noted = os.getxattr(there, "user.taskman.origin").replace(b'"', b"")
        os.setxattr(there, "user.taskman.origin", noted)
        again(304, case.content)
        path.write_bytes(case.content[::-1])
        os.utime(path, (time.time() - AGE / 2,) * 2)
        again(200, case.content[::-1])
        again(304, case.content[::-1])
        there.write_bytes(b"touched")
        again(200, case.content[::-1])
        there.unlink()
        again(200, case.content[::-1])


def server_names(case):
    for i, (disposition, name) in enumerate(NAMES):
        run = case.get(f"-J {{http}}/named/file?name={i}")
        case.ensure(run.files() == {name: case.content}, disposition, list(run.files()), run)
    case.ensure(not (case.home / "outside").exists(), "a name leads out of the directory")
    run = case.get("-J -d below {http}/named/file?name=0")
    case.ensure((run.directory / "below/plain.bin").exists(), run)


def local_names(case):
    for option, path in (("-d new/dir", "new/dir/file"), ("-o new/dir/own", "new/dir/own")):
        run = case.get(f"{option} {{http}}/file")
        case.ensure((run.directory / path).read_bytes() == case.content, run)
    run = case.get("--number {http}/file {http}/basic/../file {http}/eight/1.tar")
    case.get("--number {http}/file {http}/eight/1.tar", behind=run)
    names, contents = set(run.files()), set(run.files().values())
    case.ensure(names == {"file", "file.1", "file.2", "1.tar", "1.1.tar"}, names)
    case.ensure(contents == {case.content}, "other bytes")


def replaced_files(case):
    run = case.get("{http}/file")
    path, owner = run.directory / "file", 65534 if os.geteuid() == 0 else os.geteuid()
    path.write_bytes(b"former")
    path.chmod(0o640)
    os.chown(path, owner, -1)
    case.get("{http}/file", 3, behind=run)
    case.ensure(path.read_bytes() == b"former", "an existing file was replaced")
    case.get("-f {http}/file", behind=run)
    case.ensure(path.read_bytes() == case.content, "-f replaces nothing")
    case.ensure((path.stat().st_mode & 0o777, path.stat().st_uid) == (0o640, owner), path.stat())
    path.chmod(0o440)
    case.get("-f {http}/file", 0 if os.geteuid() == 0 else 3, behind=run)


def standard_output(case):
    digest = hashlib.sha256(case.content).hexdigest()
    for option, status in ((f"--sha256 {digest}", 0), (f"--sha256 {digest[::-1]}", 5), ("", 0)):
        run = Run(case, [TASKMAN, "get"], f"-o - {option} {{http}}/file")
        case.ensure(run.end() == status, run.status, run.err)
        case.ensure(run.out == (b"" if status else case.content), len(run.out), "bytes", run.err)
        case.ensure(not run.files(), list(run.files()))


CASES = (newer, server_names, local_names, replaced_files, standard_output)
