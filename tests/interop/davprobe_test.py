"""Runs the davprobe example against a real server.

Usage: davprobe_test.py DAVPROBE
"""

import os
import pty
import re
import select
import sys
import unittest
from pathlib import Path

from servers import Server
from setups import PASSWORD, USER, request

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from programs import ProgramTest, calendar

DAVPROBE = os.path.abspath(sys.argv[1])
TEA = calendar("Tea with Søren")


class DavProbeTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.url = self.enterContext(Server("sabredav_digest")).home + "work/"
        request("MKCALENDAR", self.url)
        self.environment |= {"QUILLMERE_USER": USER, "QUILLMERE_PASSWORD": PASSWORD}

    def davprobe(self, *arguments, **options):
        return self.run_program(DAVPROBE, *arguments, **options)

    def put(self, name, data):
        """The entity tag that the resource is said to have."""
        file = self.folder / "file.ics"
        file.write_bytes(data)
        out = self.davprobe(self.url, "put", name, file).out
        self.assertRegex(out, f'^put {re.escape(name)}\t"[0-9a-f]+"\n$')
        return out.split("\t")[1].strip()

    def probe(self):
        tag, *rest = self.davprobe(self.url).out.splitlines()
        self.assertRegex(tag, "^tag: [0-9]+$")
        return tag, rest

    def test_puts_lists_gets_and_deletes(self):
        tag, rest = self.probe()
        self.assertEqual(rest, ["may hold: events, to-dos", "resources: 0, bytes: 0"])

        texts = {"tea": TEA, "my ferry": calendar("Ferry", kind="VTODO"),
                 "50% off? #1 a:b+c@d & für %41": calendar("Sale")}
        tags = {name: self.put(name, text) for name, text in texts.items()}
        # A URL without its slash is that of the same collection. The lines of a text come with
        # single line feeds, because they were in XML.
        plain = {name: text.replace(b"\r", b"") for name, text in texts.items()}
        for url in (self.url, self.url.rstrip("/")):
            self.assertEqual(self.davprobe(url, "list").out,
                             "".join(f"{name}\t{tags[name]}\n" for name in sorted(tags)))
            for name, text in plain.items():
                self.assertEqual(self.davprobe(url, "get", name).stdout, text)
        later, rest = self.probe()
        self.assertNotEqual(later, tag)
        self.assertEqual(rest[1], f"resources: 3, bytes: {sum(map(len, plain.values()))}")
        for name in (*texts, "tea"):
            self.assertEqual(self.davprobe(self.url, "delete", name).out, f"deleted {name}\n")
        self.assertEqual(self.davprobe(self.url, "list").out, "")

    def test_failures(self):
        file = self.folder / "text"
        file.write_bytes(b"no calendar")
        nobody = {"QUILLMERE_PASSWORD": "wrong"}
        table = [
            ((self.url,), nobody, "unauthorized (KBTDavConnection 401)"),
            ((self.url + "none/",), {}, "not found (KBTDavConnection 404)"),
            ((self.url, "get", "a\x1b]0;b\x07"), {},
             'there is no resource "a\ufffd]0;b\ufffd"'),
            ((self.url, "put", "x", file), {},
             "unsupported media type (KBTDavConnection 415)"),
            ((self.url, "put", "x", self.folder / "gone"), {},
             f"cannot read {self.folder / 'gone'}"),
        ]
        for arguments, environment, text in table:
            with self.subTest(arguments):
                result = self.davprobe(*arguments, status=1, environment=environment)
                self.assertEqual(result.out, "")
                self.assertEqual(result.err, f"davprobe: {text}\n")
        del self.environment["QUILLMERE_PASSWORD"]
        for arguments, text in (((self.url,), "there is no password and no terminal to ask for it"),
                                (("--password", "x", self.url), ""), ((self.url, "put", "x"), "")):
            self.assertIn(f"davprobe: {text}", self.davprobe(*arguments, status=2).err)

    def test_log_holds_the_traffic_and_no_secret(self):
        self.put("tea", TEA)
        result = self.davprobe("--log", self.url, "get", "tea")
        self.assertEqual(result.stdout, TEA.replace(b"\r", b""))
        self.assertIn("SUMMARY:Tea with Søren", result.err)
        for secret in (PASSWORD, "Authorization", "nonce"):
            self.assertNotIn(secret, result.err)

    def on_terminal(self, *arguments, typed=None):
        """Exit status, and what a terminal shows of a davprobe that has no password but what is
        typed, once it asks."""
        environment = {name: value for name, value in self.environment.items()
                       if name != "QUILLMERE_PASSWORD" or typed is None}
        child, terminal = pty.fork()
        if child == 0:
            try:
                os.execve(DAVPROBE, [DAVPROBE, *arguments], environment)
            finally:
                os._exit(127)
        shown = b""
        try:
            while select.select([terminal], [], [], 20)[0] and (piece := os.read(terminal, 4096)):
                shown += piece
                if typed and shown.endswith(b": "):
                    os.write(terminal, typed)
                    typed = None
        except OSError:  # a terminal that everybody closed
            pass
        os.close(terminal)
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), shown.decode()

    def test_on_a_terminal(self):
        self.assertEqual(self.on_terminal(self.url, "list", typed=b"secret\n"),
                         (0, "Password of alice: \r\n"))
        self.assertEqual(self.on_terminal(self.url, "list", typed=b"\x03")[0], -2)
        # DEL and C1 controls may stand in XML, so they come through the server.
        self.put("bell", calendar("Tea \x7f \x9b31m red", "bell"))
        status, shown = self.on_terminal("--log", self.url, "get", "bell")
        self.assertEqual(status, 0, shown)
        self.assertIn("SUMMARY:Tea \ufffd \ufffd31m red\r\n", shown)
        self.assertNotRegex(shown, "[\x7f\x9b]")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
