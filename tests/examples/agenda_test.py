"""Runs the agenda example on copies of the demo calendars and on odd ones.

Usage: agenda_test.py AGENDA LIBICAL_DUMP DEMO_DATA
"""

import os
import pty
import resource
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

AGENDA, LIBICAL_DUMP, DEMO_DATA = map(os.path.abspath, sys.argv[1:4])

BOSTON = ("040000008200E00074C5B7101A82E0080000000010D41FB7A2C9DC01"
          "00000000000000001000000077A1E2D94B0C5F4E9B6A1C2D3E4F5061")
STANDUP = "3f0c7a52-standup@groupware.example"
FERRY = "71f2c5d8-travel@groupware.example"
OFFSITE = "9d21be60-offsite@groupware.example"
DEPLOY = "b7713c0e-deploy@groupware.example"


def document(*components, properties=""):
    return ("BEGIN:VCALENDAR\r\nVERSION:2.0\r\n" + properties + "".join(components)
            + "END:VCALENDAR\r\n").encode()


def event(uid, *lines, stamp="20260101T000000Z", start="DTSTART:20260504T080000Z"):
    lines = [f"UID:{uid}", f"DTSTAMP:{stamp}", start, *lines]
    return "BEGIN:VEVENT\r\n" + "".join(line + "\r\n" for line in lines if line) + "END:VEVENT\r\n"


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


def fnv1a(data):
    value = 0xCBF29CE484222325
    for byte in data:
        value = (value ^ byte) * 0x100000001B3 % 2**64
    return value


class AgendaTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        for file in Path(DEMO_DATA).glob("*.ics"):
            shutil.copy(file, self.folder)
        self.team = self.folder / "team.ics"
        self.state = self.folder / "state"

    def agenda(self, *arguments, status=0, **options):
        result = subprocess.run([AGENDA, *map(str, arguments)], capture_output=True,
                                timeout=120, **options)
        self.assertEqual(result.returncode, status, result)
        result.out, result.err = result.stdout.decode(), result.stderr.decode()
        return result

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

    def libical(self, path):
        """UID, summary, start and end (of to-dos: due) of each item, as libical reads them."""
        result = subprocess.run([LIBICAL_DUMP, path], capture_output=True, check=True)
        return [line.split("\t") for line in result.stdout.decode().splitlines()]

    def added_uid(self, result):
        return result.out.split("added ")[1].strip()

    # Showing.

    def test_days_in_two_zones(self):
        offsite = ("Klausurtagung auf Spiekeroog – Fähre ab Neuharlingersiel, mit Ölzeug und "
                   "Gummistiefeln, Haus Dünenblick, Spiekeroog")
        expected = {
            "Europe/Berlin": f"""\
Tue 2026-05-05
  09:15-09:30  Stand-up, Room "Kehrwieder"
  16:00-17:30  Quarterly review with Boston, Boston – 4th floor
Wed 2026-05-06
  all day      {offsite}
  11:00-11:15  Stand-up (later, because of the fire drill), Room "Kehrwieder"
Thu 2026-05-07
  all day      {offsite}
  09:15-09:30  Stand-up, Room "Kehrwieder"
  from 22:30   データベース移行 (database migration)
Fri 2026-05-08
  all day      {offsite}
  until 05:00  データベース移行 (database migration)
  12:30-13:30  Lunch with the new colleagues, Café Süßholz
To do
  due Tue 2026-05-05 17:00  Book the ferry
  no due date  Tidy the wiki
""",
            "America/New_York": f"""\
Tue 2026-05-05
  03:15-03:30  Stand-up, Room "Kehrwieder"
  10:00-11:30  Quarterly review with Boston, Boston – 4th floor
Wed 2026-05-06
  all day      {offsite}
  05:00-05:15  Stand-up (later, because of the fire drill), Room "Kehrwieder"
Thu 2026-05-07
  all day      {offsite}
  03:15-03:30  Stand-up, Room "Kehrwieder"
  16:30-23:00  データベース移行 (database migration)
Fri 2026-05-08
  all day      {offsite}
  12:30-13:30  Lunch with the new colleagues, Café Süßholz
To do
  due Tue 2026-05-05 11:00  Book the ferry
  no due date  Tidy the wiki
""",
        }
        for zone, text in expected.items():
            for length in (["--days", 5], ["--to", "2026-05-09"]):
                with self.subTest(zone=zone, length=length):
                    result = self.agenda("--zone", zone, "--from", "2026-05-05", *length, self.team)
                    self.assertEqual(result.out, text)
                    self.assertEqual(result.err, "")

    def test_several_calendars_are_named(self):
        result = self.agenda("--zone", "Europe/Berlin", "--from", "2026-05-01", "--days", 4,
                             self.team, self.folder / "feiertage.ics")
        self.assertIn("Fri 2026-05-01\n  all day      Tag der Arbeit  "
                      "[Feiertage in Süddeutschland]\n", result.out)
        self.assertIn("  09:15-09:30  Stand-up, Room \"Kehrwieder\"  [Team Harbour]\n",
                      result.out)
        self.assertIn("  14:00-14:45  Budget call (cancelled)  [Team Harbour]\n", result.out)

    def test_range_starts_today_and_has_seven_days(self):
        day = 24 * 60 * 60
        now = time.time()
        stamps = {n: time.strftime("%Y%m%d", time.gmtime(now + n * day)) for n in (-1, 0, 6, 7)}
        path = self.file(document(*(event(str(n), f"SUMMARY:day {n}", start=f"DTSTART:{stamp}")
                                    for n, stamp in stamps.items())))
        out = self.agenda("--zone", "UTC", path).out
        if time.gmtime(now).tm_yday != time.gmtime().tm_yday:
            self.skipTest("midnight passed")
        self.assertEqual([n for n in stamps if f"  day {n}\n" in out], [0, 6])

    def test_single_events(self):
        # What an event's lines look like on the day 2026-05-04 in UTC.
        table = [
            ("a time before a change to daylight saving ends in its zone's own hours",
             ["DTSTART;TZID=America/New_York:20260308T063000"], "2026-03-08", "  10:30        X"),
            ("Windows name", ["DTSTART;TZID=W. Europe Standard Time:20260504T100000"],
             "2026-05-04", "  08:00        X"),
            ("abbreviation", ["DTSTART;TZID=PST:20260504T100000"], "2026-05-04", "  17:00        X"),
            ("unknown zone is the default one", ["DTSTART;TZID=Nowhere:20260504T100000"],
             "2026-05-04", "  10:00        X"),
            ("weeks", ["DTSTART;VALUE=DATE:20260420", "DURATION:P2W"], "2026-05-03",
             "  all day      X"),
            ("weeks end", ["DTSTART;VALUE=DATE:20260420", "DURATION:P2W"], "2026-05-04", None),
            ("a day of 23 hours is one day later on the clock",
             ["DTSTART;TZID=Europe/Berlin:20260328T120000", "DURATION:P1D"], "2026-03-29",
             "  until 10:00  X"),
            ("24 hours are not", ["DTSTART;TZID=Europe/Berlin:20260328T120000", "DURATION:PT24H"],
             "2026-03-29", "  until 11:00  X"),
            ("day that ends when it starts", ["DTSTART:20260504", "DTEND:20260504"], "2026-05-04",
             "  all day      X"),
            ("end before start", ["DTSTART:20260504T090000Z", "DTEND:20260504T080000Z"],
             "2026-05-04", "  09:00        X"),
            ("until midnight", ["DTSTART:20260504T220000Z", "DTEND:20260505T000000Z"],
             "2026-05-05", None),
            ("no date", ["DTSTART:someday"], "2026-05-04", None),
            ("alarm's texts", ["DTSTART:20260504T090000Z", "BEGIN:VALARM", "SUMMARY:Y",
                               "DURATION:PT5M", "END:VALARM"], "2026-05-04", "  09:00        X"),
        ]
        for name, lines, day, expected in table:
            with self.subTest(name):
                path = self.file(document(event("u", "SUMMARY:X", *lines[1:], start=lines[0])))
                out = self.agenda("--zone", "UTC", "--from", day, "--days", 1, path).out
                lines = [line for line in out.splitlines() if "X" in line or "Y" in line]
                self.assertEqual(lines, [expected] if expected else [])

    def test_repeating_events(self):
        paris = "TZID=Europe/Paris:"
        weekly = [f"DTSTART;{paris}20261018T090000", f"DTEND;{paris}20261018T100000",
                  "RRULE:FREQ=WEEKLY", f"EXDATE;{paris}20261101T090000"]
        moved = [f"RECURRENCE-ID;{paris}20261108T090000",
                 f"DTSTART;{paris}20261109T120000"]
        # The lines of X, those of a changed instance Y, the zone, and what is shown in the 29 days
        # from Sunday 2026-10-18 on.
        table = [
            ("Paris time, where the clocks go back on the 25th", weekly, [], "Europe/London",
             ["10-18 08:00-09:00  X", "10-25 08:00-09:00  X", "11-08 08:00-09:00  X",
              "11-15 08:00-09:00  X"]),
            ("the same from far away", weekly, [], "Asia/Tokyo",
             ["10-18 16:00-17:00  X", "10-25 17:00-18:00  X", "11-08 17:00-18:00  X",
              "11-15 17:00-18:00  X"]),
            ("changed instance", weekly, moved, "Europe/Paris",
             ["10-18 09:00-10:00  X", "10-25 09:00-10:00  X", "11-09 12:00        Y",
              "11-15 09:00-10:00  X"]),
            ("changed instance alone", [], moved, "Europe/Paris", ["11-09 12:00        Y"]),
            ("by the digits, in whatever zone", ["DTSTART:20261024T023000", "RRULE:FREQ=WEEKLY"],
             [], "Asia/Tokyo", [f"{day} 02:30        X" for day in ("10-24", "10-31", "11-07",
                                                                    "11-14")]),
            ("last Friday", ["DTSTART:20250131T090000Z", "RRULE:FREQ=MONTHLY;BYDAY=-1FR"], [],
             "UTC", ["10-30 09:00        X"]),
            ("whole days each year", ["DTSTART;VALUE=DATE:19881030", "DTEND;VALUE=DATE:19881101",
                                      "RRULE:FREQ=YEARLY"], [], "America/New_York",
             ["10-30 all day      X", "10-31 all day      X"]),
            ("began before the range", ["DTSTART:20261001T220000Z", "DURATION:P3DT6H",
                                        "RRULE:FREQ=WEEKLY;COUNT=3"], [], "UTC",
             ["10-18 all day      X", "10-19 until 04:00  X"]),
            ("a day of 25 hours", [f"DTSTART;{paris}20261017T120000", "DURATION:P1D",
                                   "RRULE:FREQ=WEEKLY;COUNT=2"], [], "Europe/Paris",
             ["10-18 until 12:00  X", "10-24 from 12:00   X", "10-25 until 12:00  X"]),
            ("hours", ["DTSTART:20261017T000000", "RRULE:FREQ=HOURLY;INTERVAL=3;COUNT=10"], [],
             "America/New_York", ["10-18 00:00        X", "10-18 03:00        X"]),
            ("count", ["DTSTART:20261017T090000Z", "RRULE:FREQ=DAILY;COUNT=3"], [], "UTC",
             ["10-18 09:00        X", "10-19 09:00        X"]),
            ("last day", ["DTSTART;VALUE=DATE:20261001", "RRULE:FREQ=DAILY;UNTIL=20261019"], [],
             "UTC", ["10-18 all day      X", "10-19 all day      X"]),
            ("additional dates", ["DTSTART:20261018T090000Z", "DURATION:PT1H",
                                  "RDATE:20261019T100000Z,20261020T110000Z/PT5M",
                                  "EXDATE:20261018T090000Z"], [], "UTC",
             ["10-19 10:00-11:00  X", "10-20 11:00-12:00  X"]),
            ("seconds", ["DTSTART:20261018T090030Z", "RRULE:FREQ=WEEKLY;INTERVAL=3",
                         "EXDATE:20261108T090030Z"], [], "UTC", ["10-18 09:00        X"]),
            ("every 97 minutes for thirty years",
             ["DTSTART:19960101T000000Z", "RRULE:FREQ=MINUTELY;INTERVAL=97;COUNT=166983"], [],
             "UTC", ["10-18 00:37        X", "10-18 02:14        X"]),
        ]
        for name, lines, other, zone, expected in table:
            with self.subTest(name):
                events = [event("u", f"SUMMARY:{title}", *part, start="")
                          for title, part in (("X", lines), ("Y", other)) if part]
                out = self.agenda("--zone", zone, "--from", "2026-10-18", "--days", 29,
                                  self.file(document(*events))).out
                shown, day = [], ""
                for line in out.splitlines():
                    if line.startswith("  "):
                        shown.append(day + line[1:])
                    else:
                        day = line[9:14]
                self.assertEqual(shown, expected)

    def test_rules_that_cannot_be_followed(self):
        table = {
            "FREQ=YEARLY;BYWEEKNO=3": "Encountered unprocessed recurrence properties "
                                      "( FREQ, BYWEEKNO )",
            "FREQ=DAILY;UNTIL=s\x1boon": "Unrecognized date format: The date-only string "
                                       "“s\ufffdoon” could not be parsed as a date.",
            "FREQ=SECONDLY": "events that repeat so often are not supported",
        }
        for rule, reason in table.items():
            with self.subTest(rule):
                path = self.file(document(event("u", "SUMMARY:X\x07", f"RRULE:{rule}")))
                listed = ("Rules that cannot be followed\n  X\ufffd\n"
                          f"    {rule}: {reason}\n".replace("\x1b", "\ufffd"))
                for day, shown in {
                        "2026-05-03": "Nothing takes place on these days.\n",
                        "2026-05-04": f"Mon 2026-05-04\n  08:00        X\ufffd (repeats)\n{listed}",
                        "2026-05-05": f"Nothing takes place on these days.\n{listed}"}.items():
                    out = self.agenda("--zone", "UTC", "--from", day, "--days", 1, path).out
                    self.assertEqual(out, shown)

    def test_too_many_dates_take_no_time(self):
        path = self.file(document(event("u", "SUMMARY:X", "RRULE:FREQ=MINUTELY",
                                        start="DTSTART;TZID=Europe/Paris:19960101T000000")))
        begin = time.monotonic()
        out = self.agenda("--zone", "UTC", "--from", "2026-05-04", "--days", 1, path).out
        self.assertEqual(out.count("  X\n"), 24 * 60)
        out = self.agenda("--zone", "UTC", "--from", "2026-05-04", "--days", 36500, path).out
        self.assertIn("\n    FREQ=MINUTELY: gives too many dates", out)
        self.assertLess(time.monotonic() - begin, 20)

    def test_to_dos(self):
        def to_do(uid, *lines):
            return event(uid, f"SUMMARY:{uid}", *lines, start="").replace("VEVENT", "VTODO")

        path = self.file(document(
            to_do("overdue", "DUE;VALUE=DATE:20251231"), to_do("soon", "DUE:20260504T120000Z"),
            to_do("later", "DUE:20260601T120000Z"), to_do("done", "STATUS:COMPLETED"),
            to_do("finished", "COMPLETED:20260101T000000Z"), to_do("dropped", "STATUS:CANCELLED"),
            to_do("whenever")))
        out = self.agenda("--zone", "UTC", "--from", "2026-05-04", path).out
        self.assertEqual(out, "Nothing takes place on these days.\nTo do\n"
                              "  due Wed 2025-12-31  overdue\n"
                              "  due Mon 2026-05-04 12:00  soon\n"
                              "  no due date  whenever\n")

    def test_control_characters_stay_off_the_terminal(self):
        path = self.file(document(
            event("u\x1b[2J", "SUMMARY:a\\nb\x1b[31mc\x07\x9bd\x7f ü", "LOCATION:\x1b]0;t\x07"),
            properties="X-WR-CALNAME:n\x1bm\r\n"))
        other = self.file(document(), "other\x1b.ics")
        for arguments in (["--from", "2026-05-04"], ["--list"], ["--state", self.state]):
            with self.subTest(arguments):
                result = self.agenda(*arguments, path, other)
                text = result.out + result.err
                self.assertIn("a b\ufffd[31mc\ufffd\ufffdd\ufffd ü", text)
                self.assertFalse([c for c in text if (ord(c) < 32 and c not in "\n\t")
                                  or 0x7F <= ord(c) < 0xA0], text)

    def test_list(self):
        out = self.agenda("--list", self.team).out
        self.assertEqual(len(out.splitlines()), 9)
        self.assertIn(f"{BOSTON}\tQuarterly review with Boston\n", out)
        self.assertIn(f"{STANDUP}\tStand-up\n", out)

    def test_output_that_cannot_be_written_is_an_error(self):
        with open("/dev/full", "wb") as full:
            result = subprocess.run([AGENDA, "--list", self.team], stdout=full, stderr=-1)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"could not be written", result.stderr)

    # State.

    def test_second_run_does_not_read_the_file(self):
        show = ["--state", self.state, "--zone", "Europe/Berlin", "--from", "2026-05-01", self.team]
        first = self.agenda(*show).out.split("\n")
        self.assertEqual(first[0], f"{self.team}: 9 new, 0 updated, 0 gone")
        days = first[first.index("Mon 2026-05-04"):]

        times = self.team.stat()
        self.team.write_bytes(b"not a calendar")  # nobody will know
        os.utime(self.team, ns=(times.st_atime_ns, times.st_mtime_ns))
        self.assertEqual(self.agenda(*show).out.split("\n"), [f"{self.team}: unchanged", *days])
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

    def test_names_what_changed(self):
        self.agenda("--state", self.state, self.team)
        ferry = blocks(self.team.read_bytes())[0][9]
        self.assertIn(FERRY.encode(), ferry)
        self.edit_outside(self.team,
                          (ferry, event("new@example", "SUMMARY:Retrospective").encode()),
                          (b"DTSTAMP:20260429T134402Z", b"DTSTAMP:20260503T000000Z"),
                          (b"Quarterly review", b"Half-yearly review"))
        out = self.agenda("--state", self.state, "--from", "2026-01-01", self.team).out
        self.assertTrue(out.startswith(f"{self.team}: 1 new, 1 updated, 1 gone\n"
                                       "  new: Retrospective\n"
                                       "  updated: Half-yearly review with Boston\n"
                                       "  gone: Book the ferry\n"), out)
        self.assertIn("unchanged\n", self.agenda("--state", self.state, self.team).out)

    def test_damaged_state_counts_as_none(self):
        self.agenda("--state", self.state, self.team)
        (path,) = self.state.iterdir()
        good = path.read_bytes()

        def signed(body):
            return body + struct.pack("<Q", fnv1a(body))

        body = good[:-8]
        self.assertEqual(signed(body), good)
        path_end = 16 + 8 + struct.unpack_from("<Q", body, 16)[0]
        (caching,) = struct.unpack_from("<Q", body, path_end + 1)
        (name,) = struct.unpack_from("<Q", body, path_end + 9 + caching + 1)
        count_at = path_end + 9 + caching + 9 + name
        self.assertEqual(struct.unpack_from("<Q", body, count_at), (9,))
        damaged = {f"cut at {n}": good[:n] for n in (0, 1, 15, 16, 23, 24, 200, len(good) - 1)}
        damaged |= {f"byte {n} flipped": good[:n] + bytes([good[n] ^ 0x20]) + good[n + 1:]
                    for n in (3, 17, 60, len(good) // 2, len(good) - 3)}
        # These have the right checksum, and lie inside of it.
        damaged |= {
            "endless path": signed(body[:16] + b"\xff" * 8 + body[24:]),
            "more objects than there are": signed(body[:count_at] + b"\xff" * 8
                                                  + body[count_at + 8:]),
            "fewer objects": signed(body[:count_at] + struct.pack("<Q", 8) + body[count_at + 8:]),
            "last field cut": signed(body[:-1]),
            "last fields cut": signed(body[:-9]),
            "meaningless flag": signed(body[:path_end] + b"\x02" + body[path_end + 1:]),
            "another file's": signed(body[:24] + b"!" + body[25:]),
        }
        for name, data in damaged.items():
            with self.subTest(name):
                path.write_bytes(data)
                result = self.agenda("--state", self.state, self.team)
                self.assertIn(str(path), result.err)
                self.assertIn("is not used", result.err)
                self.assertIn("9 new, 0 updated, 0 gone", result.out)
                self.assertIn("unchanged", self.agenda("--state", self.state, self.team).out)

    # Problems.

    def test_files_that_cannot_be_read(self):
        missing = self.folder / "missing.ics"
        for name, path in {"missing": missing, "a folder": self.folder}.items():
            for arguments in ([], ["--list"], ["--remove", "x"], ["--edit", "x", "--summary", "y"],
                              ["--state", self.state]):
                with self.subTest(name, arguments=arguments):
                    result = self.agenda(*arguments, path, status=1)
                    self.assertIn(str(path), result.err)
                    self.assertFalse(missing.exists())
        both = self.agenda("--from", "2026-05-04", missing, self.team, status=1)
        self.assertIn("Stand-up", both.out)

    def test_usage_errors(self):
        for arguments in ([], ["--list"], ["--nonsense", "x"], ["x", "--from"],
                          ["x", "--from", "2026-02-30"], ["x", "--from", "tomorrow"],
                          ["x", "--from", "2026-05-04T10:00"], ["x", "--days", "0"],
                          ["x", "--days", "9x"], ["x", "--days", "99999999999999999999"],
                          ["x", "--days", "3", "--to", "2026-05-04"],
                          ["x", "--from", "2026-05-05", "--to", "2026-05-04"],
                          ["x", "--to", "1999-01-01"], ["x", "--zone", "Atlantis/Capital"],
                          ["x", "--add", "s"], ["x", "y", "--add", "s", "--start", "2026-05-04"],
                          ["x", "--add", "s", "--summary", "t", "--start", "2026-05-04"],
                          ["x", "--edit", "u"], ["x", "--remove", "u", "--list"],
                          ["x", "--remove", "u", "--summary", "t"], ["x", "--summary", "t"],
                          ["x", "--add", "s", "--start", "2026-05-04T25:00"],
                          ["x", "--add", "s", "--start", "2026-05-04", "--end", "2026-05-03"],
                          ["x", "--add", "s", "--start", "2026-05-04", "--end",
                           "2026-05-04T10:00"]):
            with self.subTest(arguments):
                result = self.agenda(*arguments, status=2, cwd=self.folder)
                self.assertEqual(result.out, "")
                self.assertTrue(result.err.startswith("agenda: "), result.err)
                self.assertFalse((self.folder / "x").exists())

    def test_help(self):
        out = self.agenda("--help").out
        self.assertIn("Exit status: 0", out)
        self.assertIn("--state FOLDER", out)

    # Saving.

    def test_add_keeps_everything(self):
        for name in ("team.ics", "feiertage.ics", "chorale.ics"):
            with self.subTest(name):
                path = self.folder / name
                self.agenda("--state", self.state, path)
                components, properties = blocks(path.read_bytes())
                uid = self.added_uid(self.agenda(
                    "--zone", "Europe/Berlin", "--state", self.state, "--add", "Brückentag; frei, für alle",
                    "--start", "2026-05-15", "--end", "2026-05-16", "--location", "zu Hause",
                    "--description", "Zeile 1\nZeile 2", path))
                new_components, new_properties = blocks(path.read_bytes())
                self.assertEqual(new_components[:-1], components)
                self.assertIn(b"UID:" + uid.encode(), new_components[-1])
                lost = set(properties) - set(new_properties)
                self.assertTrue(all(line.startswith(b"PRODID") for line in lost), lost)
                self.assertEqual(
                    self.libical(path)[-1],
                    [uid, "Brückentag\\; frei\\, für alle", "20260515", "20260517"])
                self.assertIn("  all day      Brückentag; frei, für alle, zu Hause\n",
                              self.agenda("--from", "2026-05-16", "--days", 1, path).out)

    def test_add_makes_a_missing_file(self):
        path = self.folder / "new.ics"
        uid = self.added_uid(self.agenda("--zone", "Asia/Tokyo", "--add", "初日", "--start",
                                         "2026-05-04T09:00", "--end", "2026-05-04T10:30", path))
        self.assertEqual(self.libical(path),
                         [[uid, "初日", "20260504T000000Z", "20260504T013000Z"]])

    def test_edit_replaces_only_the_fields(self):
        always = {b"DTSTAMP", b"LAST-MODIFIED", b"SEQUENCE"}
        summary, start, end = 1, 2, 3
        # The arguments, the properties that may differ, and what libical reads anew.
        table = [
            (BOSTON, ["--summary", "Review, moved"], {b"SUMMARY"}, {summary: "Review\\, moved"}),
            (BOSTON, ["--start", "2026-05-06T16:00"], {b"DTSTART", b"DTEND"},
             {start: "20260506T140000Z", end: "20260506T153000Z"}),
            (OFFSITE, ["--start", "2026-05-12"], {b"DTSTART", b"DTEND"},
             {start: "20260512", end: "20260515"}),
            (DEPLOY, ["--end", "2026-05-08T01:00"], {b"DTEND", b"DURATION"},
             {end: "20260507T230000Z"}),
            (DEPLOY, ["--location", "Raum 1", "--description", "kürzer"],
             {b"LOCATION", b"DESCRIPTION"}, {}),
            (STANDUP, ["--summary", "Daily"], {b"SUMMARY"}, {summary: "Daily"}),
            (OFFSITE, ["--end", "2026-05-06"], {b"DTEND"}, {end: "20260507"}),
            (FERRY, ["--end", "2026-05-06"], {b"DUE"}, {end: "20260506"}),
            (FERRY, ["--end", "2026-05-06T12:00"], {b"DUE"}, {end: "20260506T100000Z"}),
        ]
        original = self.team.read_bytes()
        old, rows = blocks(original)[0], self.libical(self.team)
        for uid, fields, edited, values in table:
            with self.subTest(uid=uid, fields=fields):
                self.team.write_bytes(original)
                self.agenda("--zone", "Europe/Berlin", "--edit", uid, *fields, self.team)
                new = blocks(self.team.read_bytes())[0]
                self.assertEqual(len(new), len(old))
                (changed,) = [n for n in range(len(old)) if old[n] != new[n]]
                names = self.differing_names(old[changed], new[changed])
                self.assertLessEqual(edited, names)
                self.assertLessEqual(names, edited | always)
                self.assertEqual(new[changed].partition(b"BEGIN:VALARM")[2],
                                 old[changed].partition(b"BEGIN:VALARM")[2])

                expected = [list(row) for row in rows]
                row = next(row for row in expected if row[0] == uid)
                for column, value in values.items():
                    row[column] = value
                self.assertEqual(self.libical(self.team), expected)

    def differing_names(self, old, new):
        def names(lines):
            return {line.split(b":")[0].split(b";")[0] for line in lines
                    if not line.startswith(b" ")}
        old_lines, new_lines = old.split(b"\n"), new.split(b"\n")
        kept = set(old_lines) & set(new_lines)
        self.assertEqual([line for line in old_lines if line in kept],
                         [line for line in new_lines if line in kept])
        return names(set(old_lines) ^ set(new_lines))

    def test_edit_replaces_folded_and_repeated_lines_whole(self):
        for lines in (["DESCRIPTION:one\r\n two"], ["DESCRIPTION:one\r\n\ttwo"],
                      ["description;ALTREP=\"x\":one", "DESCRIPTION:two"]):
            with self.subTest(lines):
                path = self.file(document(event("a", "CLASS:PUBLIC", *lines, "URL:x:y")))
                self.agenda("--edit", "a", "--description", "three", path)
                block = blocks(path.read_bytes())[0][0]
                self.assertIn(b"CLASS:PUBLIC\r\nDESCRIPTION:three\r\nURL:x:y\r\n", block)

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
        }
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
                self.assertLessEqual({line.rstrip() for line in properties},
                                     {line.rstrip() for line in saved_properties})
                self.agenda("--remove", uid, path)
                self.assertEqual(blocks(path.read_bytes())[0], saved[:-1])

    def test_edit_finds_the_whole_series(self):
        changed = event("a", "RECURRENCE-ID:20260505T080000Z", "SUMMARY:changed")
        path = self.file(document(changed, event("a", "RRULE:FREQ=DAILY", "SUMMARY:whole")))
        self.agenda("--edit", "a", "--summary", "new", path)
        first, second = blocks(path.read_bytes())[0]
        self.assertEqual(first, changed.encode())
        self.assertIn(b"SUMMARY:new\r\n", second)

    def test_refuses_what_it_could_not_save_whole(self):
        table = {
            "unclosed event": b"BEGIN:VCALENDAR\r\nVERSION:2.0\r\nBEGIN:VEVENT\r\nUID:a\r\n"
                              b"END:VCALENDAR\r\n",
            "cut off": document(event("a"), event("b"))[:-30],
            "end too many": document(event("a") + "END:VEVENT\r\n"),
            "crossed": document("BEGIN:VEVENT\r\nBEGIN:VALARM\r\nEND:VEVENT\r\nEND:VALARM\r\n"),
            "no calendar around": event("a").encode(),
            "two calendars": document(event("a")) + document(event("b")),
            "text behind": document(event("a")) + b"and so on\r\n",
            "vCalendar": document(event("a")).replace(b"VERSION:2.0", b"VERSION:1.0"),
            "another scale": document(event("a"), properties="CALSCALE:CHINESE\r\n"),
            "no property": document("something\r\n", event("a")),
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

    # Size.

    def test_large_file(self):
        count = 20000
        data = document(*(event(f"{n:06}", f"SUMMARY:number {n}", "BEGIN:VALARM", "TRIGGER:-PT5M",
                                "END:VALARM") for n in range(count)))
        path = self.file(data)
        self.assertIn(f": {count} new, 0 updated, 0 gone\n",
                      self.agenda("--state", self.state, path).out)
        self.agenda("--state", self.state, "--edit", "010000", "--summary", "changed", path)
        new, old = blocks(path.read_bytes())[0], blocks(data)[0]
        self.assertEqual([n for n in range(count) if old[n] != new[n]], [10000])
        self.assertIn(": unchanged", self.agenda("--state", self.state, path).out)

        # A terminal is told of the progress, and gets its line back.
        leader, follower = pty.openpty()
        subprocess.run([AGENDA, "--list", path], stdout=subprocess.DEVNULL, stderr=follower,
                       check=True)
        os.close(follower)
        shown = b""
        try:
            while piece := os.read(leader, 4096):
                shown += piece
        except OSError:  # a terminal that everybody closed
            pass
        os.close(leader)
        self.assertIn(b"\rreading " + bytes(path) + b": 20000 items", shown)
        self.assertTrue(shown.endswith(b"\r\x1b[K"), shown[-40:])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
