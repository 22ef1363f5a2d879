"""Runs the agenda example on copies of the demo calendars, on odd ones, and on those of a server.

Usage: agenda_test.py AGENDA DEMO_DATA
"""

import base64
import difflib
import os
import re
import resource
import shutil
import signal
import socket
import sys
import threading
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from programs import ProgramTest, ScriptedHandler, ScriptedServer

AGENDA, DEMO_DATA = map(os.path.abspath, sys.argv[1:3])

BOSTON = ("040000008200E00074C5B7101A82E0080000000010D41FB7A2C9DC01"
          "00000000000000001000000077A1E2D94B0C5F4E9B6A1C2D3E4F5061")
STANDUP = "3f0c7a52-standup@groupware.example"
FERRY = "71f2c5d8-travel@groupware.example"
OFFSITE = "9d21be60-offsite@groupware.example"
DEPLOY = "b7713c0e-deploy@groupware.example"
TEA, BREAKFAST = "  08:00        Tea", "  08:00        Breakfast"


def document(*components, properties=""):
    return ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + properties + "".join(components)
            + "END:VCALENDAR\r\n").encode()


def event(uid, *lines, stamp="20260101T000000Z", start="DTSTART:20260504T080000Z"):
    lines = [f"UID:{uid}", f"DTSTAMP:{stamp}", start, *lines]
    return "BEGIN:VEVENT\r\n" + "".join(line + "\r\n" for line in lines if line) + "END:VEVENT\r\n"


def events(*titles):
    return document(*(event(title, f"SUMMARY:{title}") for title in titles))


def blocks(data):
    """The components that stand directly in the calendar, and its own property lines."""
    components, properties, depth, block = [], [], 0, b""
    for line in data.splitlines(keepends=True):
        upper = line.upper()
        if upper.startswith(b"BEGIN:"):
            depth += 1
        if depth >= 2:
            block += line
        elif not upper.startswith((b"BEGIN:", b"END:")) and line.strip():
            properties.append(line)
        if upper.startswith(b"END:"):
            depth -= 1
            if depth == 1:
                components.append(block)
                block = b""
    return components, properties


class AgendaTest(ProgramTest):
    def setUp(self):
        super().setUp()
        shutil.copytree(DEMO_DATA, self.folder, dirs_exist_ok=True)
        self.team = self.folder / "team.ics"
        self.state = self.folder / "state"

    def agenda(self, *arguments, **options):
        return self.run_program(AGENDA, *arguments, **options)

    def file(self, data, name="calendar.ics"):
        path = self.folder / name
        path.write_bytes(data)
        return path

    def edit_outside(self, path, *replacements):
        data = path.read_bytes()
        for old, new in replacements:
            self.assertIn(old, data)
            data = data.replace(old, new, 1)
        before = path.stat().st_mtime_ns
        path.write_bytes(data)
        os.utime(path, ns=(before + 10**9, before + 10**9))

    def added_uid(self, result):
        return result.out.split("added ")[1].strip()

    # Showing.

    def test_events_on_a_day(self):
        # An event's lines, and how it looks on a day in UTC.
        paris = "TZID=Europe/Paris:"
        weekly = [f"DTSTART;{paris}20261018T090000", f"DTEND;{paris}20261018T100000",
                  "RRULE:FREQ=WEEKLY", f"EXDATE;{paris}20261101T090000"]
        added = ["DTSTART:20261018T090000Z", "DURATION:PT1H",
                 "RDATE:20261020T110000Z/PT5M", "EXDATE:20261018T090000Z"]
        table = [
            ("over midnight", ["DTSTART:20260504T203000Z", "DURATION:PT6H"], "2026-05-04",
             "from 20:30"),
            ("in weeks", ["DTSTART;VALUE=DATE:20260420", "DURATION:P2W"], "2026-05-03", "all day"),
            ("a day of 23 hours is one day later on the clock",
             ["DTSTART;TZID=Europe/Berlin:20260328T120000", "DURATION:P1D"], "2026-03-29",
             "until 10:00"),
            ("24 hours are not", ["DTSTART;TZID=Europe/Berlin:20260328T120000", "DURATION:PT24H"],
             "2026-03-29", "until 11:00"),
            ("a day that ends when it starts", ["DTSTART:20260504", "DTEND:20260504"],
             "2026-05-04", "all day"),
            ("end before start", ["DTSTART:20260504T090000Z", "DTEND:20260504T080000Z"],
             "2026-05-04", "09:00"),
            ("until midnight", ["DTSTART:20260504T220000Z", "DTEND:20260505T000000Z"],
             "2026-05-05", None),
            ("no date", ["DTSTART:someday"], "2026-05-04", None),
            ("an alarm's texts", ["DTSTART:20260504T090000Z", "BEGIN:VALARM", "SUMMARY:Y",
                                  "DURATION:PT5M", "END:VALARM"], "2026-05-04", "09:00"),
            ("an exception", weekly, "2026-11-01", None),
            ("an exception in the seconds that a rule leaves out",
             ["DTSTART:20261018T090030Z", "RRULE:FREQ=WEEKLY", "EXDATE:20261025T090030Z"],
             "2026-10-25", None),
            ("a date of its own", added, "2026-10-20", "11:00-12:00"),
            ("in place of its start", added, "2026-10-18", None),
            ("days that began before", ["DTSTART;VALUE=DATE:19881030", "DTEND;VALUE=DATE:19881101",
                                        "RRULE:FREQ=YEARLY"], "2026-10-31", "all day"),
            ("hours that began before", ["DTSTART:20261001T220000Z", "DURATION:P3DT6H",
                                         "RRULE:FREQ=WEEKLY"], "2026-10-19", "until 04:00"),
        ]
        for name, lines, day, expected in table:
            with self.subTest(name):
                path = self.file(document(event("u", "SUMMARY:X", *lines[1:], start=lines[0])))
                out = self.agenda("--zone", "UTC", "--from", day, "--days", 1, path).out
                shown = [line for line in out.splitlines() if "X" in line or "Y" in line]
                self.assertEqual(shown, [f"  {expected:<11}  X"] if expected else [])

    def test_rules_that_cannot_be_followed(self):
        rule = "FREQ=DAILY;UNTIL=s\x1boon"
        path = self.file(document(event("u", "SUMMARY:X\x07", f"RRULE:{rule}")))
        listed = ("Rules that cannot be followed\n  X\ufffd\n    FREQ=DAILY;UNTIL=s\ufffdoon: "
                  "Unrecognized date format: The date-only string “s\ufffdoon” could not be parsed "
                  "as a date.\n")
        nothing = "Nothing takes place on these days.\n"
        start = "Mon 2026-05-04\n  08:00        X\ufffd (repeats)\n"
        for day, shown in (("2026-05-03", nothing), ("2026-05-04", start + listed),
                           ("2026-05-05", nothing + listed)):
            out = self.agenda("--zone", "UTC", "--from", day, "--days", 1, path).out
            self.assertEqual(out, shown)

    def test_to_dos(self):
        path = self.file(document(*(
            event(uid, f"SUMMARY:{uid}", line, start="").replace("VEVENT", "VTODO")
            for uid, line in {
                "overdue": "DUE;VALUE=DATE:20251231", "soon": "DUE:20260504T120000Z",
                "later": "DUE:20260601T120000Z", "done": "STATUS:COMPLETED",
                "finished": "COMPLETED:20260101T000000Z", "dropped": "STATUS:CANCELLED",
                "whenever": ""}.items())))
        out = self.agenda("--zone", "UTC", "--from", "2026-05-04", path).out
        self.assertEqual(out, "Nothing takes place on these days.\nTo do\n"
                              "  due Wed 2025-12-31  overdue\n"
                              "  due Mon 2026-05-04 12:00  soon\n"
                              "  no due date  whenever\n")

    def test_control_characters_stay_off_the_terminal(self):
        path = self.file(document(
            event("u\x1b[2J", "SUMMARY:a\\nb\x1b[31mc\x07\x9bd\x7f ü", "LOCATION:\x1b]0;t\x07"),
            properties="X-WR-CALNAME:n\x1bm\r\n"))
        for arguments in (["--from", "2026-05-04"], ["--list"], ["--state", self.state]):
            text = self.agenda(*arguments, path, self.file(document(), "other\x1b.ics")).out
            self.assertIn("a b\ufffd[31mc\ufffd\ufffdd\ufffd ü", text)
            self.assertNotRegex(text, "[\x00-\x08\x0b-\x1f\x7f-\x9f]")

    def test_too_many_dates_are_told(self):
        path = self.file(document(event("u", "SUMMARY:X", "RRULE:FREQ=MINUTELY",
                                        start="DTSTART;TZID=Europe/Paris:19960101T000000")))
        out = self.agenda("--zone", "UTC", "--from", "2026-05-04", "--days", 1, path).out
        self.assertEqual(out.count("  X\n"), 24 * 60)
        out = self.agenda("--zone", "UTC", "--from", "2026-05-04", "--days", 36500, path).out
        self.assertIn("\n    FREQ=MINUTELY: gives too many dates", out)

    # State.

    def test_second_run_does_not_read_the_file(self):
        show = ["--state", self.state, "--zone", "Europe/Berlin", "--from", "2026-05-01", self.team]
        first, days = self.agenda(*show).out.split("Mon 2026-05-04\n")
        self.assertTrue(first.startswith(f"{self.team}: 9 new, 0 updated, 0 gone\n"), first)

        times = self.team.stat()
        self.team.write_bytes(b"not a calendar")  # nobody will know
        os.utime(self.team, ns=(times.st_atime_ns, times.st_mtime_ns))
        self.assertEqual(self.agenda(*show).out,
                         f"{self.team}: unchanged\nMon 2026-05-04\n{days}")
        # Days stay the same days, and times move, when the zone is another one.
        zone = self.agenda(*show, "--zone", "America/New_York").out
        self.assertIn("Wed 2026-05-06\n  all day      Klausur", zone)
        self.assertIn("  10:00-11:30  Quarterly review", zone)

        os.utime(self.team, ns=(0, times.st_mtime_ns - 10**9))  # older is changed, too
        self.assertIn("0 new, 0 updated, 9 gone", self.agenda(*show).out)

    def test_state_keeps_repetitions(self):
        path = self.folder / "chorale.ics"
        show = ("--zone", "Europe/Paris", "--from", "2026-10-20", "--days", 14, path)
        days = self.agenda(*show).out
        for said in ("0 gone", "unchanged"):
            first, shown = self.agenda("--state", self.state, *show).out.split("Wed", 1)
            self.assertIn(said, first)
            self.assertEqual("Wed" + shown, days)
        # The calendar reports no change of an instance, the host sees it all the same.
        self.edit_outside(path, ("générale".encode(), b"finale"))
        out = self.agenda("--state", self.state, *show).out
        self.assertTrue(out.endswith(days.replace("générale", "finale")), out)

    def test_damaged_state_counts_as_none(self):
        self.agenda("--state", self.state, self.team)
        (path,) = self.state.iterdir()
        good = path.read_bytes()
        damaged = [good[:n] for n in (0, 1, 15, 16, 23, 24, 200, len(good) - 1)]
        damaged += [good[:n] + bytes([good[n] ^ 0x20]) + good[n + 1:]
                    for n in (3, 17, 60, len(good) // 2, len(good) - 3)]
        for data in damaged:
            path.write_bytes(data)
            result = self.agenda("--state", self.state, self.team)
            self.assertIn(f"{path} is not used", result.err)
            self.assertIn("9 new, 0 updated, 0 gone", result.out)
            self.assertIn("unchanged", self.agenda("--state", self.state, self.team).out)

    # Problems.

    def test_files_that_cannot_be_read(self):
        missing = self.folder / "missing.ics"
        for path in (missing, self.folder):
            for arguments in ([], ["--remove", "x"], ["--edit", "x", "--summary", "y"],
                              ["--state", self.state]):
                with self.subTest(path, arguments=arguments):
                    result = self.agenda(*arguments, path, status=1)
                    self.assertIn(str(path), result.err)
                    self.assertFalse(missing.exists())
        both = self.agenda("--from", "2026-05-04", missing, self.team, status=1)
        self.assertIn("Stand-up", both.out)

    def test_usage_errors(self):
        start = ["--start", "2026-05-04"]
        for arguments in ([], ["x", "--from", "2026-02-30"], ["x", "--add", "s"],
                          ["x", "y", "--add", "s", *start], ["x", "--remove", "u", *start],
                          ["x", "--add", "s", *start, "--end", "2026-05-03"]):
            with self.subTest(arguments):
                result = self.agenda(*arguments, status=2, cwd=self.folder)
                self.assertTrue(result.err.startswith("agenda: "), result.err)
                self.assertFalse((self.folder / "x").exists())

    # Saving.

    def test_add(self):
        path = self.folder / "new.ics"  # which is made
        table = [
            ("Asia/Tokyo", ["初日", "--start", "2026-05-04T09:00", "--end", "2026-05-04T10:30"],
             "DTSTART:20260504T000000Z\r\nDTEND:20260504T013000Z\r\nSUMMARY:初日\r\n"),
            ("Europe/Berlin", ["Brückentag; frei, für alle", "--start", "2026-05-15",
                               "--end", "2026-05-16", "--location", "zu Hause",
                               "--description", "Zeile 1\nZeile 2"],
             "DTSTART;VALUE=DATE:20260515\r\nDTEND;VALUE=DATE:20260517\r\n"
             "SUMMARY:Brückentag\\; frei\\, für alle\r\nLOCATION:zu Hause\r\n"
             "DESCRIPTION:Zeile 1\\nZeile 2\r\n")]
        for zone, arguments, lines in table:
            uid = self.added_uid(self.agenda("--zone", zone, "--add", *arguments, path))
            added = blocks(path.read_bytes())[0][-1].decode()
            self.assertTrue(added.startswith(f"BEGIN:VEVENT\r\nUID:{uid}\r\n"), added)
            self.assertTrue(added.endswith(lines + "END:VEVENT\r\n"), added)
        self.assertIn("  all day      Brückentag; frei, für alle, zu Hause\n",
                      self.agenda("--from", "2026-05-16", "--days", 1, path).out)

    def test_edit_replaces_only_the_fields(self):
        always = {"DTSTAMP", "LAST-MODIFIED", "SEQUENCE"}
        # The arguments, the properties that differ, and lines that are new.
        table = [
            (BOSTON, ["--summary", "Review, moved"], {"SUMMARY"}, {"SUMMARY:Review\\, moved"}),
            (BOSTON, ["--start", "2026-05-06T16:00"], {"DTSTART", "DTEND"},
             {"DTSTART:20260506T140000Z", "DTEND:20260506T153000Z"}),
            (OFFSITE, ["--start", "2026-05-12"], {"DTSTART", "DTEND"},
             {"DTSTART;VALUE=DATE:20260512", "DTEND;VALUE=DATE:20260515"}),
            (DEPLOY, ["--end", "2026-05-08T01:00"], {"DTEND", "DURATION"},
             {"DTEND:20260507T230000Z"}),
            (DEPLOY, ["--location", "Raum 1", "--description", "kürzer"],
             {"LOCATION", "DESCRIPTION"}, {"LOCATION:Raum 1", "DESCRIPTION:kürzer"}),
            (STANDUP, ["--summary", "Daily"], {"SUMMARY"}, {"SUMMARY:Daily"}),
            (FERRY, ["--end", "2026-05-06T12:00"], {"DUE"}, {"DUE:20260506T100000Z"}),
        ]
        original = self.team.read_bytes()
        old = blocks(original)[0]
        for uid, fields, edited, added in table:
            with self.subTest(uid=uid, fields=fields):
                self.team.write_bytes(original)
                self.agenda("--zone", "Europe/Berlin", "--edit", uid, *fields, self.team)
                new = blocks(self.team.read_bytes())[0]
                self.assertEqual(len(new), len(old))
                ((before, after),) = [pair for pair in zip(old, new) if pair[0] != pair[1]]
                self.assertIn(uid, self.unfolded(after))
                self.assertEqual(*(text.partition(b"BEGIN:VALARM")[2] for text in (before, after)))
                lines = list(difflib.unified_diff(
                    *(text.decode(errors="surrogateescape").splitlines()
                      for text in (before, after)), n=0))
                names = {name[1] for line in lines if (name := re.match("[-+]([A-Z-]+)[:;]", line))}
                self.assertEqual(names | always, edited | always)
                self.assertLessEqual({"+" + line for line in added}, set(lines))

    def test_edit_replaces_folded_and_repeated_lines_whole(self):
        changed = event("a", "RECURRENCE-ID:20260505T080000Z", "DESCRIPTION:changed")
        for lines in (["DESCRIPTION:one\r\n two"], ["DESCRIPTION:one\r\n\ttwo"],
                      ["description;ALTREP=\"x\":one", "DESCRIPTION:two"]):
            with self.subTest(lines):
                path = self.file(document(changed, event("a", "CLASS:PUBLIC", *lines, "URL:x:y")))
                self.agenda("--edit", "a", "--description", "three", path)
                first, second = blocks(path.read_bytes())[0]
                self.assertEqual(first, changed.encode())  # the whole series is edited
                self.assertIn(b"CLASS:PUBLIC\r\nDESCRIPTION:three\r\nURL:x:y\r\n", second)

    def test_edits_in_one_second_have_different_versions(self):
        stamps = set()
        for n in range(4):
            self.agenda("--edit", DEPLOY, "--summary", f"try {n}", self.team)
            (block,) = [b for b in blocks(self.team.read_bytes())[0] if DEPLOY.encode() in b]
            (stamp,) = [line for line in block.splitlines() if line.startswith(b"DTSTAMP")]
            self.assertIn(b"SEQUENCE:%d\r\n" % (n + 1), block)
            self.assertNotIn(stamp, stamps)
            stamps.add(stamp)

    def test_remove_takes_only_what_has_the_uid(self):
        before = blocks(self.team.read_bytes())[0]
        for uid in (STANDUP, BOSTON):
            self.agenda("--remove", uid, self.team)
            before = [block for block in before if uid not in self.unfolded(block)]
            self.assertEqual(blocks(self.team.read_bytes())[0], before)
        for line in self.agenda("--list", self.team).out.splitlines():
            self.agenda("--remove", line.split("\t")[0], self.team)
        rest = [block.splitlines()[0] for block in blocks(self.team.read_bytes())[0]]
        self.assertEqual(rest, [b"BEGIN:VTIMEZONE"] * 2 + [b"BEGIN:VJOURNAL"])
        self.assertIn(b"X-WR-CALNAME:Team Harbour\r\n", self.team.read_bytes())

    def unfolded(self, block):
        return block.replace(b"\r\n ", b"").decode()

    def test_changes_that_cannot_be_made(self):
        before = self.team.read_bytes()
        table = [(["--remove", "nobody"], "nobody"),
                 (["--edit", "nobody", "--summary", "x"], "nobody"),
                 (["--edit", STANDUP, "--start", "2026-05-05T10:00"], "repeats"),
                 (["--edit", BOSTON, "--start", "2026-05-05"], "end"),
                 (["--edit", BOSTON, "--end", "2026-05-05"], "both"),
                 (["--edit", OFFSITE, "--end", "2026-05-05"], "before"),
                 (["--edit", DEPLOY, "--end", "2026-05-01T10:00"], "before")]
        for arguments, reason in table:
            with self.subTest(arguments):
                result = self.agenda(*arguments, self.team, status=1)
                self.assertIn(str(self.team), result.err)
                self.assertIn(reason, result.err)
                self.assertEqual(self.team.read_bytes(), before)

    def test_outside_edits_survive_a_save(self):
        self.agenda("--state", self.state, self.team)
        self.edit_outside(self.team,
                          (b"DTSTAMP:20260429T134402Z", b"DTSTAMP:20260503T000000Z"),
                          (b"Quarterly review", b"Half-yearly review"))
        result = self.agenda("--state", self.state, "--add", "x", "--start", "2026-05-04",
                             self.team)
        self.assertIn("  updated: Half-yearly review with Boston\nadded", result.out)
        self.assertIn(b"Half-yearly review", self.team.read_bytes())
        self.assertIn(": unchanged", self.agenda("--state", self.state, self.team).out)
        self.assertIn("\tx\n", self.agenda("--list", self.team).out)

    def test_odd_calendars_lose_nothing(self):
        alarm = "BEGIN:VALARM\r\nUID:alarm-{0}\r\nTRIGGER:-PT5M\r\nACTION:AUDIO\r\nEND:VALARM"
        nameless = "BEGIN:VEVENT\r\nSUMMARY:has no UID\r\nEND:VEVENT\r\n"
        changed = event("a", "RECURRENCE-ID:20260505T080000Z", "SUMMARY:changed")
        whole = event("a", "RRULE:FREQ=DAILY", "SUMMARY:whole")
        table = {
            "no UID at all": document(nameless, nameless),
            "no UID after one": document(event("a"), nameless, event("b")),
            "no DTSTAMP": document(event("a"), event("b").replace("DTSTAMP:20260101T000000Z\r\n",
                                                                  "")),
            "alarms with UIDs": document(event("a", alarm.format(1)), event("b", alarm.format(1)),
                                         event("a", "RECURRENCE-ID:20260505T080000Z")),
            "changed instance first": document(changed, whole),
            "changed instance far away": document(whole, event("b"), changed),
            "journal of an event's UID": document(
                event("a"), event("a").replace("VEVENT", "VJOURNAL")),
            "LF alone": document(event("a", "DESCRIPTION:one\r\n  two")).replace(b"\r\n", b"\n"),
            "small letters": document(event("a"), event("b").lower()),
            "folded with tabs": document(event("a", "DESCRIPTION:one\r\n\ttwo")),
            "not UTF-8": document(event("a", "SUMMARY:gr?n")).replace(b"?", b"\xfc"),
            "byte order mark": b"\xef\xbb\xbf" + document(event("a")),
            "unknown components": document("BEGIN:X-NOTE\r\nBEGIN:X-INNER\r\nX:1\r\nEND:X-INNER\r\n"
                                           "END:X-NOTE\r\n", event("a")),
            "no items": document(properties="X-WR-CALNAME:a\\nb\\, c\\\\d\r\nCOLOR:teal\r\n"),
            "name in the wrong place": document(event("a"), "X-WR-CALNAME:late\r\n"),
            "empty": b"",
        } | {path.name: path.read_bytes() for path in self.folder.glob("*.ics")}
        for name, data in table.items():
            with self.subTest(name):
                path = self.file(data)
                components, properties = blocks(data.removeprefix(b"\xef\xbb\xbf"))
                uid = self.added_uid(self.agenda("--add", "x", "--start", "2026-05-04", path))
                saved, saved_properties = blocks(path.read_bytes())
                # The components of one UID are brought together, all else stays in its order.
                self.assertEqual(sorted(saved[:-1]), sorted(components))
                if name != "changed instance far away":
                    self.assertEqual(saved[:-1], components)
                self.assertLessEqual({line.rstrip() for line in properties
                                      if not line.startswith(b"PRODID")},
                                     {line.rstrip() for line in saved_properties})
                self.agenda("--remove", uid, path)
                self.assertEqual(blocks(path.read_bytes())[0], saved[:-1])

    def test_refuses_what_it_could_not_save_whole(self):
        table = {
            "unclosed event": b"BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:a\r\n"
                              b"END:VCALENDAR\r\n",
            "cut off": document(event("a"), event("b"))[:-30],
            "end too many": document(event("a") + "END:VEVENT\r\n"),
            "crossed": document("BEGIN:VEVENT\r\nBEGIN:VALARM\r\nEND:VEVENT\r\nEND:VALARM\r\n"),
            "no calendar around": event("a").encode(),
            "two calendars": document(event("a")) + document(event("b")),
            "vCalendar": document(event("a")).replace(b"VERSION:2.0", b"VERSION:1.0"),
            "another scale": document(event("a"), properties="CALSCALE:CHINESE\r\n"),
            "event in an event": document(event("a", event("b").rstrip())),
            "blank line hides a beginning": document(event("a"), "\r\n" + event("b")),
            "event in small letters": document(event("a").replace("BEGIN:VEVENT", "begin:vevent")),
        }
        for name, data in table.items():
            with self.subTest(name):
                path = self.file(data)
                result = self.agenda("--add", "x", "--start", "2026-05-04", path, status=1)
                self.assertIn(f"{path}: cannot be saved without losing data: ", result.err)
                self.assertEqual(path.read_bytes(), data)
                self.agenda("--list", path)  # it can be read all the same

    def test_failed_write_is_told(self):
        before = self.team.read_bytes()

        def limit_files():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))

        result = self.agenda("--add", "x", "--start", "2026-05-04", self.team, status=1,
                             preexec_fn=limit_files)
        self.assertIn(f"{self.team}: could not be saved", result.err)
        self.assertNotIn("added", result.out)
        self.assertEqual(self.team.read_bytes(), before)
        nowhere = self.folder / "no" / "folder.ics"
        result = self.agenda("--add", "x", "--start", "2026-05-04", nowhere, status=1)
        self.assertIn(f"{nowhere}: could not be saved", result.err)


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
        self.file.write_bytes(events("Breakfast"))
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
                200, {"ETag": tag} if tag else {}, b"\xef\xbb\xbf" + events(*titles) + b"\r\n")
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
            good = (200, {"ETag": '"good"'}, events("Tea"))
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
        private = (401, {"WWW-Authenticate": 'Basic realm="r"'}, events("Tea"))
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
        self.server.answers["/"] = self.server.answers["/2"] = (200, {}, events("Tea"))
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
