"""Real CalDAV servers on 127.0.0.1, each with a folder of its own that goes with it.

Usage: servers.py SERVER PROGRAM [ARGUMENT]...

Runs a program while SERVER is up, and exits with 1 when it fails. The program finds in its
environment: QUILLMERE_INTEROP_SERVER, the server's name; QUILLMERE_INTEROP_BASE, the URL that a
login starts from; QUILLMERE_INTEROP_HOME, the URL below which the user may make collections;
QUILLMERE_USER and QUILLMERE_PASSWORD; and for a server with TLS SSL_CERT_FILE, the authority that
the server is known by.

A server with TLS takes its certificate from QUILLMERE_TEST_CERTIFICATES, a folder that
make_certificates.sh has filled.
"""

import json
import os
import signal
import subprocess
import sys
from pathlib import Path

from keeper import logs
from setups import PASSWORD, SERVERS, USER

# Before a command: it is killed when this process ends, even if this one is killed.
WITH_THIS_PROCESS = ["setpriv", "--pdeathsig", "KILL"]


class Server:
    """A running server, for a `with`. It does not outlive this process, however that ends.

    Has its name; the URLs base and home; authorities, the file to check its certificate with, or
    None; and its folder.
    """

    def __init__(self, name):
        self.name = name

    def __enter__(self):
        # In a session of its own, so that no Ctrl-C keeps it from cleaning up.
        self.keeper = subprocess.Popen(
            [sys.executable, "-B", Path(__file__).with_name("keeper.py"), self.name],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
        try:
            announced = self.keeper.stdout.readline()
            if not announced:
                raise RuntimeError(f"{self.name} did not start")
            places = json.loads(announced)
            self.folder = Path(places["folder"])
            self.base, self.home = places["base"], places["home"]
            self.authorities = places["authorities"]
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.keeper.stdin.close()
        self.keeper.stdout.close()
        self.keeper.wait()

    def environment(self):
        trust = {"SSL_CERT_FILE": self.authorities} if self.authorities else {}
        return os.environ | trust | {
            "QUILLMERE_INTEROP_SERVER": self.name, "QUILLMERE_INTEROP_BASE": self.base,
            "QUILLMERE_INTEROP_HOME": self.home,
            "QUILLMERE_USER": USER, "QUILLMERE_PASSWORD": PASSWORD}


def main(name, command):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that the server is stopped
    with Server(name) as server:
        status = subprocess.run(WITH_THIS_PROCESS + command, env=server.environment()).returncode
        if status:
            print(logs(server.folder), file=sys.stderr)
    return 1 if status else 0


if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in SERVERS:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2:]))
