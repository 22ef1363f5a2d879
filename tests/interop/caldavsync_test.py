"""Runs the caldavsync example against real servers, and against a scripted one that goes wrong.

Usage: caldavsync_test.py CALDAVSYNC
"""

import os
import shutil
import signal
import subprocess
import sys
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from xml.sax.saxutils import escape

from servers import PASSWORD, USER, Server

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from programs import ProgramTest, ScriptedHandler, ScriptedServer, calendar

CALDAVSYNC = os.path.abspath(sys.argv[1])
STATE = ".caldavsync"


class CalDavServer(ScriptedServer):
    """A CalDAV server of one calendar, without a login. `name` is the calendar's, None when it is
    gone; `resources` are entity tag and text by href, as listed; where `page` is true every REPORT
    gets an HTML page; `on_request` hears the method of each request once it was carried out, before
    the answer is sent."""

    def __init__(self):
        self.name, self.resources, self.page, self.version = "Work", {}, False, 0
        self.on_request = lambda method: None
        super().__init__(CalDavHandler)

    def put(self, href, text):
        self.version += 1
        self.resources[href] = (f'"{self.version}"', text)

    def delete(self, href):
        self.version += 1
        self.resources.pop(href, None)


class CalDavHandler(ScriptedHandler):
    def answer(self, status, text="", **fields):
        self.server.on_request(self.command)
        super().answer(status, fields, text.encode())

    def multistatus(self, rows):
        self.answer(207, '<multistatus xmlns="DAV:">' + "".join(
            f"<response><href>{escape(href)}</href><propstat><prop>{prop}</prop>"
            "<status>HTTP/1.1 200 OK</status></propstat></response>" for href, prop in rows)
            + "</multistatus>")

    def body(self):
        return self.rfile.read(int(self.headers["Content-Length"] or 0)).decode()

    def do_PROPFIND(self):
        body = self.body()
        if "current-user-principal" in body:
            prop = "<current-user-principal><href>/me/</href></current-user-principal>"
        elif "calendar-home-set" in body:
            prop = ("<calendar-home-set><href>/</href></calendar-home-set>"
                    "<schedule-outbox-URL><href>/outbox/</href></schedule-outbox-URL>")
        elif "getctag" in body:
            prop = f"<getctag>{self.server.version}</getctag>"
        elif self.server.name is None:
            return self.multistatus([])
        else:
            prop = ("<resourcetype><calendar/></resourcetype>"
                    f"<displayname>{escape(self.server.name)}</displayname>")
        self.multistatus([("/cal/", prop)])

    def do_REPORT(self):
        body = self.body()
        if self.server.page:
            return self.answer(200, "<html><p>Back soon<br></html>")
        if "calendar-query" in body:
            kind = "VTODO" if "VTODO" in body else "VEVENT"
            asked = [href for href, (_, text) in self.server.resources.items()
                     if f"BEGIN:{kind}".encode() in text]
        else:
            asked = [href.text for href in ElementTree.fromstring(body).iter("{DAV:}href")]
        self.multistatus([(href, f"<getetag>{escape(etag)}</getetag>"
                                 f"<calendar-data>{escape(text.decode())}</calendar-data>")
                          for href in asked for etag, text in [self.server.resources[href]]])

    def do_PUT(self):
        self.server.put(self.path, self.body().encode())
        self.answer(201, ETag=self.server.resources[self.path][0])

    def do_DELETE(self):
        self.server.delete(self.path)
        self.answer(204)


class CalDavSyncTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.environment |= {"QUILLMERE_USER": USER, "QUILLMERE_PASSWORD": PASSWORD}

    def scripted(self, *names):
        """A server of events of these names, which the folder has too."""
        server = self.enterContext(CalDavServer())
        self.url = server.url
        for name in names:
            server.put(f"/cal/{name}.ics", calendar(name))
        if names:
            self.sync()
        return server

    def sync(self, mirror="a", *options, status=0, environment={}):
        """What it prints, errors first."""
        result = self.run_program(CALDAVSYNC, *options, self.url, self.folder / mirror,
                                  status=status, environment=environment)
        self.assertEqual(result.err == "", status == 0, result)
        return result.err + result.out

    def path(self, file, mirror="a", name="Work"):
        path = self.folder / mirror / name / file
        path.parent.mkdir(parents=True, exist_ok=True)
        return path

    def files(self, mirror="a", name="Work"):
        return {path.name: path.read_bytes() for path in self.path(".", mirror, name).iterdir()}

    def everything(self):
        return {path: path.is_file() and path.read_bytes() for path in self.folder.rglob("*")}

    def test_whatever_stands_in_a_name_or_a_text_arrives(self):
        for server in ("sabredav_digest", "cyrus_basic"):
            with self.subTest(server), Server(server) as running:
                self.url = running.base
                shutil.rmtree(self.folder / "a", ignore_errors=True)
                shutil.rmtree(self.folder / "b", ignore_errors=True)
                self.arrives()

    def arrives(self):
        self.sync("a", "--create", "Work")
        odd = "50% off #1 a&b+c@d; für %41 & %2f.ics"
        texts = {odd: calendar("Sale"), "tea@example.com.ics": calendar("Tea with Søren"),
                 "my ferry.ics": calendar("Ferry", kind="VTODO"),
                 "unix.ics": calendar("Line feeds", line_end="\n")}
        for name, text in texts.items():
            self.path(name).write_bytes(text)
        self.assertIn("Work: sent 4 new\n", self.sync("a"))
        self.assertEqual(self.files("a"), texts)
        self.assertIn("Work: received 4 new\n", self.sync("b"))
        self.assertEqual(self.files("b"), texts | {"unix.ics": calendar("Line feeds")})

        # Changes on either side; a renamed file is none.
        self.path(odd).write_bytes(calendar("Sale 2", uid="Sale"))
        self.path("tea@example.com.ics").unlink()
        self.path("my ferry.ics").rename(self.path("renamed.ics"))
        self.path("new.ics", "b").write_bytes(calendar("New"))
        self.assertIn("Work: sent 1 changed, 1 deleted\n", self.sync("a"))
        self.assertIn("Work: received 1 changed, 1 deleted; sent 1 new\n", self.sync("b"))

        # What the server refuses does not keep the others from moving.
        self.path("broken.ics").write_bytes(b"BEGIN:VEVENT\r\n")
        self.path("text.ics").write_bytes(b"no calendar")
        self.path("mailto:good?.ics").write_bytes(calendar("Good"))
        output = self.sync("a", status=1)
        self.assertRegex(output, r"Work: broken\.ics: .*\(KBTDavConnection 4[0-9]{2}\)\n")
        self.assertIn("Work: text.ics: holds neither an event nor a to-do\n", output)
        self.assertIn("Work: received 1 new; sent 1 new; 2 failed\n", output)
        self.assertIn("Work: received 1 new\n", self.sync("b"))
        self.assertEqual(self.path("mailto_good_.ics", "b").read_bytes(), calendar("Good"))

    def test_conflicts_lose_nothing(self):
        server = self.scripted("both", "same", "here", "there")
        for name in ("both", "there"):
            self.path(f"{name}.ics").write_bytes(calendar(f"{name} here", uid=name))
        for name in ("both", "here"):
            server.put(f"/cal/{name}.ics", calendar(f"{name} there", uid=name))
        self.path("here.ics").unlink()
        server.delete("/cal/there.ics")
        self.path("same.ics").write_bytes(calendar("same 2", uid="same"))
        server.put("/cal/same.ics", calendar("same 2", uid="same", line_end="\n"))
        self.path("new.ics").write_bytes(calendar("new here", uid="new"))
        server.put("/cal/new.ics", calendar("new there", uid="new"))
        self.path("equal.ics").write_bytes(calendar("equal"))
        server.put("/cal/equal.ics", calendar("equal"))

        before = self.everything(), dict(server.resources)
        output = self.sync("a", "--dry-run")
        self.assertIn("Work: would receive both.ics, and set the file here aside\n", output)
        self.assertIn("Work: would receive 1 new, 2 changed, 1 deleted; 4 conflicts\n", output)
        self.assertEqual((self.everything(), server.resources), before)

        output = self.sync()
        self.assertIn("Work: received 1 new, 2 changed, 1 deleted; 4 conflicts\n", output)
        self.assertIn("Work: here.ics was deleted here and changed at the server; it is back\n",
                      output)
        files = self.files()
        for name in ("both", "there", "new"):
            aside, = (file for file in files if file.startswith(f"{name}.ics.conflict-2"))
            self.assertEqual(files.pop(aside), calendar(f"{name} here", uid=name))
            self.assertIn(f"{name}.ics was changed on both sides; what was here is {aside}\n",
                          output)
        self.assertEqual(files, {f"{name}.ics": calendar(text, uid=name) for name, text in {
            "both": "both there", "same": "same 2", "here": "here there", "new": "new there",
            "equal": "equal"}.items()})
        self.assertEqual(self.sync(), "Work: in step\n")

    def test_neither_side_empties_the_other_unasked(self):
        server = self.scripted("tea", "cake")

        def refused(text):
            before = self.everything(), dict(server.resources)
            self.assertIn(text, self.sync(status=1))
            self.assertEqual((self.everything(), server.resources), before)

        # A page instead of a listing, while the tag has changed. Later the listing is asked for.
        server.put("/cal/new.ics", calendar("New"))
        server.page = True
        refused("the server has nothing any more")
        server.page = False
        self.assertEqual(self.sync(), "Work: received 1 new\n")

        shutil.move(self.folder / "a/Work", self.folder / "kept")
        refused("the folder is empty")
        (self.folder / "a/Work").mkdir()
        refused("the folder is empty")
        (self.folder / "a/Work").rmdir()
        shutil.move(self.folder / "kept", self.folder / "a/Work")

        resources, server.resources = server.resources, {}
        server.version += 1
        refused("the server has nothing any more")
        self.assertEqual(self.sync("a", "--allow-emptying"), "Work: received 3 deleted\n")
        self.assertEqual(self.files(), {})
        server.resources = resources
        server.version += 1
        self.sync()
        for file in self.files():
            self.path(file).unlink()
        self.assertEqual(self.sync("a", "--allow-emptying"), "Work: sent 3 deleted\n")
        self.assertEqual(server.resources, {})

    def test_what_fails_leaves_both_sides_as_they_are(self):
        server = self.scripted("tea", "cake")

        # The connection is lost before the texts come: what is gone at the server is still here.
        def lose(method):
            reports.extend([method] if method == "REPORT" else [])
            if len(reports) > 1:
                raise ConnectionError

        reports = []
        server.delete("/cal/tea.ics")
        server.put("/cal/new.ics", calendar("New"))
        before = self.everything()
        server.on_request = lose
        self.assertRegex(self.sync(status=1),
                         r"^caldavsync: Work: .* \(NSURLErrorDomain -1005\)\n$")
        self.assertEqual(self.everything(), before)
        server.on_request = lambda _: None
        self.assertEqual(self.sync(), "Work: received 1 new, 1 deleted\n")

        # A file that cannot be read is none that was deleted.
        self.path("new.ics").unlink()
        self.path("new.ics").mkdir()
        self.assertIn("Work: new.ics: cannot be read\n", self.sync(status=1))
        self.assertEqual(set(server.resources), {"/cal/cake.ics", "/cal/new.ics"})

        # What has come and could not be written comes again.
        server.put("/cal/new.ics", calendar("Newer"))
        self.sync(status=1)
        self.path("new.ics").rmdir()
        self.assertIn("Work: received 1 changed; 1 conflict\n", self.sync())

    def test_what_others_do_during_a_run_is_seen_by_the_next(self):
        server = self.scripted()
        self.path("new.ics").write_bytes(calendar("New"))
        server.on_request = lambda method: (
            method == "PUT" and server.put("/cal/other.ics", calendar("Other")))
        self.assertEqual(self.sync(), "Work: sent 1 new\n")
        self.assertEqual(self.sync(), "Work: received 1 new\n")

    def test_killed_at_any_request_it_loses_nothing(self):
        for kill_at in range(1, 40):
            shutil.rmtree(self.folder / "a", ignore_errors=True)
            server = self.scripted("edited", "gone", "stays")
            server.put("/cal/there.ics", calendar("There"))
            self.path("here.ics").write_bytes(calendar("Here"))
            self.path("edited.ics").write_bytes(calendar("Edited here", uid="edited"))
            self.path("gone.ics").unlink()

            requests = []
            process = subprocess.Popen([CALDAVSYNC, self.url, self.folder / "a"],
                                       env=self.environment, stdout=subprocess.DEVNULL)

            def kill(method):
                requests.append(method)
                if len(requests) == kill_at:
                    process.kill()

            server.on_request = kill
            was_killed = process.wait(30) == -signal.SIGKILL
            server.on_request = lambda _: None
            self.sync()
            self.assertEqual(self.sync(), "Work: in step\n")
            expected = {"edited.ics": calendar("Edited here", uid="edited"),
                        "stays.ics": calendar("stays"), "there.ics": calendar("There"),
                        "here.ics": calendar("Here")}
            self.assertEqual(self.files(), expected, requests)
            self.assertEqual({href[5:]: text for href, (_, text) in server.resources.items()},
                             expected, requests)
            if not was_killed:
                self.assertIn("DELETE", requests)
                return
        self.fail("it never came to its end")

    def test_names_from_a_server_stay_in_the_folder(self):
        server = self.scripted()
        server.name = "../../x\x9b"
        long = "l" * 300
        hrefs = ["/cal/..%2f..%2fx.ics", "/cal/%2e%2e.ics", "/cal/%2e%2e%2f.ics", "/cal/.hidden.ics",
                 "/cal/a%00b%0ac%1b.ics", "/cal/A.ics", "/cal/a.ics",
                 f"/cal/{long}.ics", f"/cal/{long}2.ics", "/cal/%ff%fe.ics", "/cal/x\x7f/../y.ics",
                 "/cal/.caldavsync", "/cal/", "/cal/%2fetc%2fpasswd"]
        for number, href in enumerate(hrefs):
            server.put(href, calendar(f"Event {number}"))
        first = self.sync()
        self.assertNotIn("\x9b", first)
        folder = self.folder / "a" / "_._.._x\ufffd"
        self.assertEqual({path.name for path in (self.folder / "a").iterdir()},
                         {STATE, folder.name})
        self.assertEqual(set(self.folder.iterdir()), {self.folder / "a"})
        texts = sorted(path.read_bytes() for path in folder.iterdir())
        self.assertEqual(texts, sorted(text for _, text in server.resources.values()))
        for path in folder.iterdir():
            self.assertRegex(path.name, r"^[^.\x00-\x1f\x7f][^\x00-\x1f\x7f]*\.ics$")
        names = {path.name.lower() for path in folder.iterdir()}
        self.assertEqual(len(names), len(hrefs))
        before = self.everything()
        server.version += 1
        server.resources["/cal/%2Fetc%2Fpasswd"] = server.resources.pop("/cal/%2fetc%2fpasswd")
        self.assertEqual(self.sync(), f"{folder.name}: in step\n")
        self.assertEqual(self.everything().keys(), before.keys())

    def test_calendars_come_and_go(self):
        with Server("sabredav_basic") as server:
            self.url = server.base
            for name in ("Work", "work", "Work", "Ärger: 100%"):
                self.sync("a", "--create", name)
            folders = {path.name for path in (self.folder / "a").iterdir()}
            self.assertEqual(folders, {"Work", "work-2", "Ärger: 100%", STATE})
            for folder in ("Work", "work-2"):
                self.path("tea.ics", name=folder).write_bytes(calendar(f"Tea in {folder}"))
            self.assertEqual(self.sync("a", "--calendar", "Work"), "Work: sent 1 new\n")
            self.assertEqual(self.sync("a", "--calendar", "none", status=1),
                             'caldavsync: the server has no calendar "none"\n')
            self.assertIn("work-2: sent 1 new\n", self.sync())

        server = self.scripted()
        server.put("/cal/tea.ics", calendar("Tea"))
        self.sync("b")
        server.name = "Renamed"
        self.assertEqual(self.sync("b"), "Work: in step\n")
        server.name = None
        self.assertIn("Work: the server lists no such calendar any more", self.sync("b", status=1))
        self.assertEqual(self.files("b"), {"tea.ics": calendar("Tea")})
        shutil.rmtree(self.folder / "b/Work")
        self.assertEqual(self.sync("b"), "")

    def test_a_state_that_does_not_fit_is_not_used(self):
        self.scripted("tea")
        state = self.folder / "a" / STATE
        original = state.read_bytes()
        table = [(contents, "cannot be used") for contents in (
            b"", original[:-9], original.replace(b"Work", b"Wurk"), original + b"x")]
        table.append((original, "mirrors another account: alice at http://"))
        for contents, text in table:
            with self.subTest(contents):
                state.write_bytes(contents)
                before = self.everything()
                options = ("--user", "bob") if contents == original else ()
                self.assertIn(text, self.sync("a", *options, status=1))
                self.assertEqual(self.everything(), before)
        state.unlink()
        self.path("tea.ics").rename(self.path("cake.ics"))
        self.assertEqual(self.sync(), "Work: received 1 new; sent 1 new\n")

    def test_a_second_program_keeps_away(self):
        server = self.scripted("tea")
        refusals = []
        server.on_request = lambda _: refusals.append(self.sync(status=1))
        self.assertEqual(self.sync(), "Work: in step\n")
        self.assertIn("another program is at work", refusals[0])

    def test_failures(self):
        with Server("sabredav_digest") as server:
            self.url = server.base
            self.assertEqual(self.sync(status=1, environment={"QUILLMERE_PASSWORD": "wrong"}),
                             "caldavsync: unauthorized (KBTDavConnection 401)\n")
        self.assertRegex(self.sync(status=1), r"^caldavsync: .+ \(NSURLErrorDomain -1004\)\n$")
        for arguments in ((), (self.url,), ("--dry-run", "--create", "x", self.url, "a"),
                          ("--create", "", self.url, "a")):
            result = self.run_program(CALDAVSYNC, *arguments, status=2, cwd=self.folder)
            self.assertIn("caldavsync --help tells more.\n", result.err)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
