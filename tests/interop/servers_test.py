"""Tests the harness itself, and the plain file server among its servers."""

import gzip
import os
import subprocess
import sys
import time
import unittest
import urllib.error
import urllib.request
from pathlib import Path

from servers import PASSWORD, USER, Server

HERE = Path(__file__).resolve().parent
RUN_FOR_EVER = """
import sys, time, servers
with servers.Server(sys.argv[1]) as server:
    print(server.folder, flush=True)
    time.sleep(60)
"""


def working_below(folder):
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            # Of a folder that is gone the link has more to say.
            if os.readlink(process / "cwd").startswith(str(folder)):
                found.append((process.name, (process / "comm").read_text()))
        except OSError:  # it is gone
            pass
    return found


class ServersTest(unittest.TestCase):
    def test_a_killed_harness_leaves_nothing(self):
        # Servers that change their user, their session and their parent.
        for name in ("cyrus_basic", "davical"):
            with self.subTest(name), subprocess.Popen(
                    [sys.executable, "-B", "-c", RUN_FOR_EVER, name], cwd=HERE,
                    stdout=subprocess.PIPE, text=True) as harness:
                folder = Path(harness.stdout.readline().strip())
                self.assertGreater(len(working_below(folder)), 2)
                harness.kill()
                deadline = time.monotonic() + 20
                while folder.exists() and time.monotonic() < deadline:
                    time.sleep(0.02)
                self.assertFalse(folder.exists())
                self.assertEqual(working_below(folder), [])

    def ask(self, url, method="GET", headers={}, data=None):
        request = urllib.request.Request(url, data, headers, method=method)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=20) as answer:
                return answer.status, answer.headers, answer.read()
        except urllib.error.HTTPError as error:
            with error:
                return error.code, error.headers, error.read()

    def test_nginx(self):
        with Server("nginx") as server:
            text = b"BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n"
            (server.folder / "root/a.ics").write_bytes(text)
            status, headers, body = self.ask(server.base + "a.ics")
            self.assertEqual((status, headers["Content-Type"], body), (200, "text/calendar", text))
            kept = {"If-None-Match": headers["ETag"]}
            self.assertEqual(self.ask(server.base + "a.ics", headers=kept)[0], 304)
            _, headers, body = self.ask(server.base + "a.ics", headers={"Accept-Encoding": "gzip"})
            self.assertEqual((headers["Content-Encoding"], gzip.decompress(body)), ("gzip", text))
            self.assertEqual(self.ask(server.base + "a.ics", "PUT", data=text)[0], 405)

            self.assertEqual(self.ask(server.home + "b.ics", "PUT", data=text)[0], 201)
            self.assertEqual(self.ask(server.home + "b.ics")[2], text)
            private = server.base + "private/c.ics"
            status, headers, _ = self.ask(private, "PUT", data=text)
            self.assertEqual((status, headers["WWW-Authenticate"]), (401, 'Basic realm="private"'))
            login = urllib.request.HTTPBasicAuthHandler()
            login.add_password("private", private, USER, PASSWORD)
            opener = urllib.request.build_opener(urllib.request.ProxyHandler({}), login)
            put = urllib.request.Request(private, text, method="PUT")
            with opener.open(put, timeout=20) as answer:
                self.assertEqual(answer.status, 201)


if __name__ == "__main__":
    unittest.main()
