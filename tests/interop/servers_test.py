"""Tests the harness itself."""

import os
import subprocess
import sys
import time
import unittest
from pathlib import Path

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
        for name in ("cyrus_basic", "davical_digest"):
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


if __name__ == "__main__":
    unittest.main()
