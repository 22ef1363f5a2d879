"""Runs the agenda example on calendars that a server on 127.0.0.1 has.

Usage: subscription_test.py AGENDA
"""

import base64
import os
import socket
import subprocess
import sys
import tempfile
import threading
import unittest
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

AGENDA = os.path.abspath(sys.argv[1])
TEA, BREAKFAST = "  08:00        Tea", "  08:00        Breakfast"


def document(*titles):
    return ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + "".join(
        f"BEGIN:VEVENT\r\nUID:{title}\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:{title}\r\n"
        "DTSTART:20260504T080000Z\r\nEND:VEVENT\r\n" for title in titles)
        + "END:VCALENDAR\r\n").encode()


class Handler(BaseHTTPRequestHandler):
    """Answers what the test has put in `server.answers`: status, fields and body by path."""
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        self.server.requests.append((self.path, self.headers))
        self.server.before(self)
        status, fields, body = self.server.answers.get(self.path, (404, {}, b"not here"))
        if "ETag" in fields and self.headers["If-None-Match"] == fields["ETag"]:
            status, fields, body = 304, {}, b""  # as of some servers, without the tag
        elif "WWW-Authenticate" in fields:
            login = b"alice:secret"
            if self.headers["Authorization"] == "Basic " + base64.b64encode(login).decode():
                status, fields = 200, {}
        self.send_response(status)
        for name, value in ({"Content-Length": len(body)} | fields).items():
            self.send_header(name, str(value))
        self.end_headers()
        self.wfile.write(body)
        self.close_connection = True

    def log_message(self, *_):
        pass


class SubscriptionTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.state = Path(folder.name) / "state"
        self.file = Path(folder.name) / "file.ics"
        self.file.write_bytes(document("Breakfast"))
        self.server, self.origin = self.serve()

    def serve(self):
        server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        server.answers, server.requests, server.before = {}, [], lambda _: None
        threading.Thread(target=server.serve_forever, args=[0.01]).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return server, f"http://127.0.0.1:{server.server_address[1]}"

    def agenda(self, *arguments, status=0, environment={}):
        plain = {name: value for name, value in os.environ.items()
                 if not name.startswith("QUILLMERE_") and not name.lower().endswith("_proxy")}
        result = subprocess.run(
            [AGENDA, "--zone", "UTC", "--from", "2026-05-04", *map(str, arguments)],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=60, env=plain | environment,
            start_new_session=True, text=True)  # nowhere to ask for a password
        self.assertEqual(result.returncode, status, result)
        return result

    def test_reads_only_what_has_changed(self):
        url = f"{self.origin}/a%20team.ics?key=x.y"
        arguments = ("--state", self.state, url, self.file)
        for tag, titles, told in (
                ('"1"', ["Tea"], "1 new, 0 updated, 0 gone\n  new: Tea\n"),
                ('"1"', ["Tea"], "unchanged\n"), ('"1"', ["Tea"], "unchanged\n"),
                ('W/"2"', ["Cake"], "1 new, 0 updated, 1 gone\n  new: Cake\n  gone: Tea\n"),
                (None, [], "0 new, 0 updated, 1 gone\n  gone: Cake\n")):
            self.server.answers["/a%20team.ics?key=x.y"] = (
                200, {"ETag": tag} if tag else {}, b"\xef\xbb\xbf" + document(*titles) + b"\r\n")
            out = self.agenda(*arguments).stdout
            self.assertIn(f"{url}: {told}", out)
            for title in titles:
                self.assertIn(f"  08:00        {title}  [a team]\n", out)
            self.assertIn(BREAKFAST, out)
        self.assertEqual([headers["If-None-Match"] for _, headers in self.server.requests],
                         [None, '"1"', '"1"', '"1"', '"2"'])

    def test_failures_lose_nothing(self):
        with socket.socket() as unused:
            unused.bind(("127.0.0.1", 0))  # nobody listens
            url = f"{self.origin}/x.ics"
            good = (200, {"ETag": '"good"'}, document("Tea"))
            bad = {"ETag": '"bad"'}
            table = {
                "not found": (404, bad, b""),
                "internal server error": (500, bad, document()),
                "NSURLErrorDomain -1005": (200, bad | {"Content-Length": 999}, document()),
                "NSURLErrorDomain -1004": (302, {"Location": "http://127.0.0.1:%d/x.ics"
                                         % unused.getsockname()[1]}, b""),
                "no iCalendar document": (200, bad, b"<html>BEGIN:VCALENDAR END:VCALENDAR</html>"),
                "or not all of one": (200, bad, document()[:-10]),
                "no iCalendar": (200, bad, b""),
            }
            self.server.answers["/x.ics"] = good
            self.agenda("--state", self.state, url)
            for reason, answer in table.items():
                with self.subTest(reason):
                    self.server.answers["/x.ics"] = answer
                    result = self.agenda("--state", self.state, url, self.file, status=1)
                    self.assertIn(f"agenda: {url}: cannot be read: ", result.stderr)
                    self.assertIn(reason, result.stderr)
                    self.assertIn("; what is known of it is shown", result.stderr)
                    self.assertIn(TEA, result.stdout)
                    self.assertIn(BREAKFAST, result.stdout)
                    self.server.answers["/x.ics"] = good
                    self.assertIn(f"{url}: unchanged\n",
                                  self.agenda("--state", self.state, url).stdout)

    def test_login(self):
        url, (other, elsewhere) = f"{self.origin}/x.ics", self.serve()
        private = (401, {"WWW-Authenticate": 'Basic realm="r"'}, document("Tea"))
        self.server.answers["/x.ics"] = other.answers["/y.ics"] = private
        self.server.answers["/leads.ics"] = (302, {"Location": f"{elsewhere}/y.ics"}, b"")
        user, password = {"QUILLMERE_USER": "alice"}, {"QUILLMERE_PASSWORD": "secret"}
        self.assertIn(TEA, self.agenda(url, environment=user | password).stdout)
        for reason, environment, place in (
                ("QUILLMERE_USER does not tell who you are", password, url),
                ("no password and no terminal", user, url),
                ("the password of alice is not taken", user | {"QUILLMERE_PASSWORD": "x"}, url),
                ("is not told your password", user | password, f"{self.origin}/leads.ics")):
            with self.subTest(reason):
                result = self.agenda(place, self.file, status=1, environment=environment)
                self.assertIn(f"{place}: cannot be read: unauthorized", result.stderr)
                self.assertIn(reason, result.stderr)
                self.assertIn(BREAKFAST, result.stdout)
        self.assertEqual([headers["Authorization"] for _, headers in other.requests], [None])

    def test_urls_are_fetched_side_by_side(self):
        both = threading.Barrier(2, timeout=20)
        self.server.before = lambda _: both.wait()
        self.server.answers["/"] = self.server.answers["/2"] = (200, {}, document("Tea"))
        out = self.agenda(f"{self.origin}/", f"{self.origin}/2").stdout
        self.assertEqual(out.count(TEA), 2)

    def test_webcal_is_https(self):
        port = self.server.server_address[1]
        for scheme in ("webcal", "WebCals"):
            result = self.agenda(f"{scheme}://127.0.0.1:{port}/x.ics", status=1)
            self.assertIn(f"agenda: https://127.0.0.1:{port}/x.ics: cannot be read: ",
                          result.stderr)
            self.assertIn("NSURLErrorDomain -1200", result.stderr)

    def test_usage_errors(self):
        for arguments in (["http://"], ["HTTPS:x.ics"], ["webcal:///x.ics"],
                          ["http://h:99999/"], [f"{self.origin}/\x1b"],
                          ["http://alice:secret@h/x.ics"], ["webcal://alice:secret@"],
                          ["--remove", "u", self.origin],
                          ["--add", "s", "--start", "2026-05-04", self.origin]):
            with self.subTest(arguments):
                result = self.agenda(*arguments, status=2)
                self.assertNotIn("secret", result.stderr)
                self.assertNotIn("\x1b", result.stderr)
        self.assertEqual(self.server.requests, [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
