"""Keeps one server until standard input ends, as it does with the harness, however that ends.

Usage: keeper.py SERVER

Once the server answers, a line of JSON tells where. At the end nothing is left: neither processes,
of which many change their user, session and parent, nor files.
"""

import contextlib
import ctypes
import json
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import traceback
from pathlib import Path

from setups import SERVERS

SECONDS_TO_START = 30
SECONDS_TO_STOP = 3
PR_SET_CHILD_SUBREAPER = 36


def free_port():
    """A port that is not among those from which the kernel serves clients."""
    while True:
        port = random.randrange(20000, 32768)
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.bind(("127.0.0.1", port))
            return port


class Site:
    """Where one server is set up: its folder, and its place on the network."""

    def __init__(self, folder, tls):
        self.folder = folder
        (folder / "logs").mkdir()
        self.port = free_port()
        self.origin = f"{'https' if tls else 'http'}://127.0.0.1:{self.port}"
        self.tls = tls
        if tls:
            for name in ("ca.pem", "good.pem", "good.key"):
                shutil.copyfile(Path(os.environ["QUILLMERE_TEST_CERTIFICATES"], name),
                                folder / name)
        self.authorities = str(folder / "ca.pem") if tls else None
        # Nothing of what is meant for the program under test, for example of a sanitizer.
        self.environment = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                            "LC_ALL": "C.UTF-8", "TZ": "UTC", "HOME": str(folder)}

    def write(self, name, text):
        path = self.folder / name
        path.write_text(text)
        return path

    def popen(self, command, environment, **options):
        with open(self.folder / "logs" / Path(command[0]).name, "ab") as log:
            return subprocess.Popen([str(part) for part in command], stdout=log,
                                    stderr=subprocess.STDOUT, cwd=self.folder,
                                    env=self.environment | environment, **options)

    def run(self, *command, text="", environment={}):
        process = self.popen(command, environment, stdin=subprocess.PIPE)
        process.communicate(text.encode())
        if process.returncode:
            raise RuntimeError(f"{command} ended with {process.returncode}")

    def start(self, *command, until=None, environment={}):
        """Returns once the server answers: at the site's port, or at a local socket."""
        process = self.popen(command, environment, stdin=subprocess.DEVNULL)
        family, address = ((socket.AF_UNIX, str(until)) if until else
                           (socket.AF_INET, ("127.0.0.1", self.port)))
        while process.poll() is None:
            with socket.socket(family) as probe:
                if not probe.connect_ex(address):
                    return
            time.sleep(0.01)
        raise RuntimeError(f"{command} ended with {process.returncode}")


def stop_descendants():
    """Ends the children of this process until there are none: orphans below it become its own."""
    deadline = time.monotonic() + SECONDS_TO_STOP
    parent = re.compile(rf"^PPid:\t{os.getpid()}$", re.M)
    while True:
        number = signal.SIGTERM if time.monotonic() < deadline else signal.SIGKILL
        for status in Path("/proc").glob("[0-9]*/status"):
            with contextlib.suppress(OSError):  # it is gone
                if parent.search(status.read_text(errors="replace")):
                    os.kill(int(status.parent.name), number)
        try:
            while os.waitpid(-1, os.WNOHANG)[0]:
                pass
        except ChildProcessError:  # there is none left
            return
        time.sleep(0.01)


def logs(folder):
    """The ends of all that the server and its helpers have to say."""
    text = ""
    for place, _, names in os.walk(folder / "logs", followlinks=True):
        for path in (Path(place, name) for name in sorted(names)):
            text += f"--- {path}\n{path.read_text(errors='replace')[-20000:]}\n"
    return text


def stop(number, _):
    raise RuntimeError(f"stopped by {signal.Signals(number).name}")


def main(name):
    kind = SERVERS[name]
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGALRM, stop)
    # Open to the users that servers run as, and short enough for the name of a local socket.
    os.umask(0o022)
    folder = Path(tempfile.mkdtemp(prefix="quillmere-interop-", dir="/tmp"))
    folder.chmod(0o755)
    try:
        signal.alarm(SECONDS_TO_START)
        site = Site(folder, kind.tls)
        kind.set_up(site)
        signal.alarm(0)
        print(json.dumps({"folder": str(folder), "base": site.origin + kind.base,
                          "home": site.origin + kind.home, "authorities": site.authorities}),
              flush=True)
        sys.stdin.read()
    except Exception:
        traceback.print_exc()
        print(logs(folder), file=sys.stderr)
        return 1
    finally:
        for number in (signal.SIGTERM, signal.SIGALRM):
            signal.signal(number, signal.SIG_IGN)
        stop_descendants()
        shutil.rmtree(folder)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
