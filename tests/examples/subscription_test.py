"""Runs the agenda example on calendars that a server on 127.0.0.1 has.

Usage: subscription_test.py AGENDA
"""

import base64
import os
import socket
import sys
import threading
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from programs import ProgramTest, ScriptedHandler, ScriptedServer

AGENDA = os.path.abspath(sys.argv[1])
TEA, BREAKFAST = "  08:00        Tea", "  08:00        Breakfast"


def document(*titles):
    return ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + "".join(
        f"BEGIN:VEVENT\r\nUID:{title}\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:{title}\r\n"
        "DTSTART:20260504T080000Z\r\nEND:VEVENT\r\n" for title in titles)
        + "END:VCALENDAR\r\n").encode()


class Handler(ScriptedHandler):
    """Answers what the test has put in `server.answers`: status, fields and body by path."""

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
        self.answer(status, fields, body)
        self.close_connection = True


class SubscriptionTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.state, self.file = self.folder / "state", self.folder / "file.ics"
        self.file.write_bytes(document("Breakfast"))
        self.server = self.serve()

    def serve(self):
        server = self.enterContext(ScriptedServer(Handler))
        server.answers, server.requests, server.before = {}, [], lambda _: None
        return server

    def agenda(self, *arguments, **options):
        return self.run_program(AGENDA, "--zone", "UTC", "--from", "2026-05-04", *arguments,
                                **options)

    def test_reads_only_what_has_changed(self):
        url = f"{self.server.url}a%20team.ics?key=x.y"
        arguments = ("--state", self.state, url, self.file)
        for tag, titles, told in (
                ('"1"', ["Tea"], "1 new, 0 updated, 0 gone\n  new: Tea\n"),
                ('"1"', ["Tea"], "unchanged\n"), ('"1"', ["Tea"], "unchanged\n"),
                ('W/"2"', ["Cake"], "1 new, 0 updated, 1 gone\n  new: Cake\n  gone: Tea\n"),
                (None, [], "0 new, 0 updated, 1 gone\n  gone: Cake\n")):
            self.server.answers["/a%20team.ics?key=x.y"] = (
                200, {"ETag": tag} if tag else {}, b"\xef\xbb\xbf" + document(*titles) + b"\r\n")
            out = self.agenda(*arguments).out
            self.assertIn(f"{url}: {told}", out)
            for title in titles:
                self.assertIn(f"  08:00        {title}  [a team]\n", out)
            self.assertIn(BREAKFAST, out)
        self.assertEqual([headers["If-None-Match"] for _, headers in self.server.requests],
                         [None, '"1"', '"1"', '"1"', '"2"'])

    def test_failures_lose_nothing(self):
        with socket.socket() as unused:
            unused.bind(("127.0.0.1", 0))  # nobody listens
            url = f"{self.server.url}x.ics"
            good = (200, {"ETag": '"good"'}, document("Tea"))
            bad = {"ETag": '"bad"'}
            table = {
                "not found": (404, bad, b""),
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
                    self.assertIn(f"agenda: {url}: cannot be read: ", result.err)
                    self.assertIn(reason, result.err)
                    self.assertIn("; what is known of it is shown", result.err)
                    self.assertIn(TEA, result.out)
                    self.assertIn(BREAKFAST, result.out)
                    self.server.answers["/x.ics"] = good
                    self.assertIn(f"{url}: unchanged\n",
                                  self.agenda("--state", self.state, url).out)

    def test_login(self):
        url, other = f"{self.server.url}x.ics", self.serve()
        private = (401, {"WWW-Authenticate": 'Basic realm="r"'}, document("Tea"))
        self.server.answers["/x.ics"] = other.answers["/y.ics"] = private
        self.server.answers["/leads.ics"] = (302, {"Location": f"{other.url}y.ics"}, b"")
        user, password = {"QUILLMERE_USER": "alice"}, {"QUILLMERE_PASSWORD": "secret"}
        self.assertIn(TEA, self.agenda(url, environment=user | password).out)
        for reason, environment, place in (
                ("QUILLMERE_USER does not tell who you are", password, url),
                ("no password and no terminal", user, url),
                ("the password of alice is not taken", user | {"QUILLMERE_PASSWORD": "x"}, url),
                ("is not told your password", user | password, f"{self.server.url}leads.ics")):
            with self.subTest(reason):
                result = self.agenda(place, self.file, status=1, environment=environment)
                self.assertIn(f"{place}: cannot be read: unauthorized", result.err)
                self.assertIn(reason, result.err)
                self.assertIn(BREAKFAST, result.out)
        self.assertEqual([headers["Authorization"] for _, headers in other.requests], [None])

    def test_urls_are_fetched_side_by_side(self):
        both = threading.Barrier(2, timeout=20)
        self.server.before = lambda _: both.wait()
        self.server.answers["/"] = self.server.answers["/2"] = (200, {}, document("Tea"))
        out = self.agenda(self.server.url, f"{self.server.url}2").out
        self.assertEqual(out.count(TEA), 2)

    def test_webcal_is_https(self):
        place = self.server.url.removeprefix("http") + "x.ics"
        for scheme in ("webcal", "WebCals"):
            result = self.agenda(scheme + place, status=1)
            self.assertIn(f"agenda: https{place}: cannot be read: ", result.err)
            self.assertIn("NSURLErrorDomain -1200", result.err)

    def test_what_is_not_asked_for(self):
        for arguments in (["http://"], [f"{self.server.url}\x1b"], ["http://alice:secret@h/x.ics"],
                          ["webcal://alice:secret@"], ["--remove", "u", self.server.url]):
            with self.subTest(arguments):
                self.assertNotRegex(self.agenda(*arguments, status=2).err, "secret|\x1b")
        self.assertEqual(self.server.requests, [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
