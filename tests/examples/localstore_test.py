"""Runs the localstore example on databases of its own.

Usage: localstore_test.py LOCALSTORE
"""

import os
import sqlite3
import sys
import unittest
from contextlib import closing
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from programs import ProgramTest

LOCALSTORE = os.path.abspath(sys.argv[1])
DAY = 24 * 60 * 60 * 10**6  # in microseconds


class LocalStoreTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.database = self.folder / "quillmere" / "events.sqlite"
        self.environment |= {"XDG_DATA_HOME": str(self.folder), "TZ": "Europe/Berlin",
                             "EKEventStoreBackend": "sqlite"}
        self.work = self.run_it("create-calendar", "Work").split()[1]

    def run_it(self, *arguments, status=0, says="", **environment):
        result = self.run_program(LOCALSTORE, *arguments, status=status, environment=environment)
        self.assertIn(says, result.err)
        return result.out

    def add(self, *options, calendar="Work"):
        return self.run_it("add", calendar, *options).split()[1]

    def tea(self, calendar="Work"):
        return self.add("--title", "Tea", "--start", "2026-05-07T15:00", "--end",
                        "2026-05-07T15:45", "--notes", "Café; \\ 1,2\nupstairs", calendar=calendar)

    def change(self, name, *options, **expected):
        self.assertEqual(self.run_it("change", "Work", name, *options, **expected),
                         "" if expected else f"changed {name}\n")

    def list(self, start="2026-01-01", days="365", calendar="Work"):
        """Name, start, end, title and notes of each event."""
        lines = self.run_it("list", calendar, "--from", start, "--days", days).splitlines()
        return [line.split("\t") for line in lines]

    def execute(self, statement, *values):
        """What another program may have stored."""
        with closing(sqlite3.connect(self.database)) as database, database:
            database.execute(statement, values)

    def test_events_come_and_go(self):
        name = self.tea()
        notes = "Café; \\ 1,2 upstairs"
        self.change(name, "--title", "Coffee")
        self.change(name, "--start", "2026-05-08T09:30")
        self.assertEqual(self.list(calendar=self.work),
                         [[name, "2026-05-08T09:30", "2026-05-08T10:15", "Coffee", notes]])
        self.change(name, "--notes", "", "--end", "2026-05-08T11:00")
        self.assertEqual(self.list("2026-05-08", "1"),
                         [[name, "2026-05-08T09:30", "2026-05-08T11:00", "Coffee", ""]])
        self.assertEqual(self.list("2026-05-07", "1"), [])
        self.assertEqual(self.run_it("remove", "Work", name), f"removed {name}\n")
        self.assertEqual(self.list(), [])

    def test_whole_days(self):
        name = self.add("--title", "Trip", "--start", "2026-03-27", "--end", "2026-03-29")
        steps = [
            ([], "2026-03-27", "2026-03-29"),
            (["--title", "Walk"], "2026-03-27", "2026-03-29"),
            (["--start", "2026-10-24"], "2026-10-24", "2026-10-26"),  # which last an hour longer
            (["--end", "2026-10-24"], "2026-10-24", "2026-10-24"),
            (["--start", "2026-10-24T10:00", "--end", "2026-10-24T11:00"],
             "2026-10-24T10:00", "2026-10-24T11:00"),
            (["--all-day"], "2026-10-24", "2026-10-24"),
        ]
        for options, start, end in steps:
            with self.subTest(options):
                if options:
                    self.change(name, *options)
                self.assertEqual([line[:3] for line in self.list()], [[name, start, end]])
        self.change(name, "--end", "2026-10-23", status=1, says="end before it starts")

    def test_repeating_events(self):
        name = self.tea()
        self.execute("UPDATE events SET rule = 'FREQ=DAILY;COUNT=3', last = last + ?, width = 38",
                     2 * DAY)
        occurrences = [f"{name}:2026-05-0{day} 13:00:00 +0000" for day in (7, 8, 9)]
        self.assertEqual([line[0] for line in self.list()], occurrences)
        self.run_it("remove", "Work", occurrences[1])
        self.change(occurrences[2], "--title", "x", status=1, says="cannot be changed alone")
        self.change(name, "--title", "Coffee")
        self.assertEqual([(line[0], line[3]) for line in self.list()],
                         [(occurrences[0], "Coffee"), (occurrences[2], "Coffee")])
        self.run_it("remove", "Work", name)
        self.assertEqual(self.list(), [])

    def test_what_would_do_harm_is_refused(self):
        name = self.tea()
        self.run_it("create-calendar", "Home")
        self.run_it("remove", "Home", name, status=1, says="no event")
        self.run_it("change", "Home", name, "--title", "x", status=1, says="no event")
        self.execute("UPDATE events SET alarms = '-600'")
        self.change(name, "--title", "x", status=1, says="has alarms")
        other = self.tea("Home")
        self.execute("UPDATE events SET identifier = ? WHERE identifier = ?", name, other)
        self.execute("UPDATE events SET alarms = ''")
        self.change(name, "--title", "x", status=1, says="other calendars")
        self.run_it("remove", "Home", name)
        self.assertEqual([line[3] for line in self.list()], ["Tea"])

    def test_failures(self):
        self.run_it("list", "Nowhere", status=1, says='no calendar "Nowhere"')
        self.run_it("calendars", status=1, says="refused", EKEventStoreAccess="denied")
        self.run_it("create-calendar", "Work")
        self.run_it("list", "Work", status=1, says="several")
        self.database.write_text("this is no database" * 100)
        self.run_it("calendars", "--backend", "sqlite", status=1, says="EKErrorDomain",
                    EKEventStoreBackend="evolution")
        start = ["--title", "x", "--start", "2026-05-07"]
        for arguments in ([], ["remove", "Work"], ["add", "Work", *start[2:]],
                          ["add", "Work", *start, "--end", "2026-05-07T15:00"]):
            self.run_it(*arguments, status=2, says="--help tells more")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
