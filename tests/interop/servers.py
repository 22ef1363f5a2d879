"""Real CalDAV servers on 127.0.0.1, each with a folder of its own that goes with it.

Usage: servers.py SERVER PROGRAM [ARGUMENT]...

Runs a program while SERVER is up, and exits with its status. The program finds in its environment:
QUILLMERE_INTEROP_SERVER, the server's name; QUILLMERE_INTEROP_HOME, the URL below which the user may make
collections; QUILLMERE_USER and QUILLMERE_PASSWORD.
"""

import hashlib
import os
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import urllib.request
from pathlib import Path

USER, PASSWORD = "alice", "secret"
SECONDS_TO_START = 20
# Before a command: it is killed when this process ends, even if this one is killed.
WITH_THIS_PROCESS = ["setpriv", "--pdeathsig", "KILL"]


def radicale(folder, port):
    """The command line that starts it, and what its environment has besides."""
    (folder / "users").write_text(f"{USER}:{PASSWORD}\n")
    (folder / "config").write_text(f"""\
[server]
hosts = 127.0.0.1:{port}
[auth]
type = htpasswd
htpasswd_filename = {folder}/users
htpasswd_encryption = plain
delay = 0
[storage]
filesystem_folder = {folder}/collections
""")
    return ["radicale", "--config", str(folder / "config")], {}


# The tables that this version's own scripts make.
SABREDAV_TABLES = """
CREATE TABLE calendarobjects (id integer primary key asc, calendardata blob, uri text,
  calendarid integer, lastmodified integer, etag text, size integer, componenttype text,
  firstoccurence integer, lastoccurence integer);
CREATE TABLE calendars (id integer primary key asc, principaluri text, displayname text, uri text,
  ctag integer, description text, calendarorder integer, calendarcolor text, timezone text,
  components text, transparent bool);
CREATE TABLE principals (id integer primary key asc, uri text, email text, displayname text,
  vcardurl text, UNIQUE(uri));
CREATE TABLE groupmembers (id integer primary key asc, principal_id integer, member_id integer,
  UNIQUE(principal_id, member_id));
CREATE TABLE users (id integer primary key asc, username text, digesta1 text, UNIQUE(username));
"""


def sabredav(folder, port, authentication):
    database = sqlite3.connect(folder / "sabredav.sqlite")
    database.executescript(SABREDAV_TABLES)
    digest = hashlib.md5(f"{USER}:SabreDAV:{PASSWORD}".encode()).hexdigest()
    database.execute("INSERT INTO users (username, digesta1) VALUES (?, ?)", (USER, digest))
    database.execute("INSERT INTO principals (uri, email, displayname) VALUES (?, ?, ?)",
                     (f"principals/{USER}", f"{USER}@example.com", USER))
    database.commit()
    database.close()
    script = Path(__file__).with_name("sabredav.php")
    return (["php", "-d", "display_errors=0", "-S", f"127.0.0.1:{port}", str(script)],
            {"DATABASE": str(folder / "sabredav.sqlite"), "AUTHENTICATION": authentication})


# How each is set up, and the path of the user's home.
SERVERS = {
    "radicale": (radicale, f"/{USER}/"),
    "sabredav_basic": (lambda *place: sabredav(*place, "basic"), f"/calendars/{USER}/"),
    "sabredav_digest": (lambda *place: sabredav(*place, "digest"), f"/calendars/{USER}/"),
}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """A running server, for a `with`. It does not outlive this process, however that ends."""

    def __init__(self, name):
        self.name = name
        self.set_up, self.home_path = SERVERS[name]

    def __enter__(self):
        self.folder = Path(tempfile.mkdtemp(prefix="quillmere-interop-"))
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if process := getattr(self, "process", None):
            process.terminate()
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        shutil.rmtree(self.folder)

    def start(self):
        port = free_port()
        command, environment = self.set_up(self.folder, port)
        with open(self.folder / "log", "wb") as log:
            self.process = subprocess.Popen(
                WITH_THIS_PROCESS + command, stdin=subprocess.DEVNULL,
                stdout=log, stderr=subprocess.STDOUT, env=os.environ | environment)
        self.wait_for_answer(port)
        self.home = f"http://127.0.0.1:{port}{self.home_path}"

    def wait_for_answer(self, port):
        deadline = time.monotonic() + SECONDS_TO_START
        while time.monotonic() < deadline and self.process.poll() is None:
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return
            except OSError:
                time.sleep(0.02)
        raise RuntimeError(f"{self.name} does not answer:\n{self.log()}")

    def log(self):
        return (self.folder / "log").read_text(errors="replace")

    def environment(self):
        return os.environ | {"QUILLMERE_INTEROP_SERVER": self.name,
                             "QUILLMERE_INTEROP_HOME": self.home,
                             "QUILLMERE_USER": USER, "QUILLMERE_PASSWORD": PASSWORD}

    def make_collection(self, name):
        """The URL of a new collection of the user's."""
        passwords = urllib.request.HTTPPasswordMgrWithDefaultRealm()
        passwords.add_password(None, self.home, USER, PASSWORD)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}),
                                             urllib.request.HTTPBasicAuthHandler(passwords),
                                             urllib.request.HTTPDigestAuthHandler(passwords))
        url = f"{self.home}{name}/"
        with opener.open(urllib.request.Request(url, method="MKCALENDAR"), timeout=20):
            return url


def main(name, command):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the server is stopped
    with Server(name) as server:
        status = subprocess.run(WITH_THIS_PROCESS + command, env=server.environment()).returncode
        if status:
            print(server.log(), file=sys.stderr)
    return 1 if status else 0


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in SERVERS:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2:]))
