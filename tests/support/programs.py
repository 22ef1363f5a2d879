"""What the tests of the example programs share."""

import os
import subprocess
import tempfile
import threading
import unittest
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path


def calendar(summary, uid=None, kind="VEVENT", line_end="\r\n"):
    times = ["DTSTART:20240105T090000Z", "DTEND:20240105T100000Z"]
    lines = ["BEGIN:VCALENDAR", "VERSION:2.0", "PRODID:-//Quillmere//Tests//EN", f"BEGIN:{kind}",
             f"UID:{uid or summary}", "DTSTAMP:20240101T000000Z",
             *(times if kind == "VEVENT" else []), f"SUMMARY:{summary}", f"END:{kind}",
             "END:VCALENDAR", ""]
    return line_end.join(lines).encode()


class ProgramTest(unittest.TestCase):
    """Each test has a folder of its own, and `environment` for the programs that it runs."""

    def setUp(self):
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith(("QUILLMERE", "KBT"))
                            and not name.lower().endswith("_proxy")}
        self.environment["LC_ALL"] = "C.UTF-8"

    def run_program(self, *command, status=0, environment={}, **options):
        """Runs a program without a terminal. What it prints is text in `out` and `err`."""
        result = subprocess.run([str(part) for part in command], capture_output=True, timeout=120,
                                stdin=subprocess.DEVNULL, start_new_session=True,
                                env=self.environment | environment, **options)
        self.assertEqual(result.returncode, status, result)
        result.out, result.err = result.stdout.decode(), result.stderr.decode()
        return result


class ScriptedServer(ThreadingHTTPServer):
    """A server on 127.0.0.1, for a `with`, whose answers a handler of the test's gives."""

    daemon_threads = True

    def __init__(self, handler):
        super().__init__(("127.0.0.1", 0), handler)
        self.url = f"http://127.0.0.1:{self.server_port}/"
        threading.Thread(target=self.serve_forever, kwargs={"poll_interval": 0.01}).start()

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()

    def handle_error(self, *_):
        pass  # a client that was killed


class ScriptedHandler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def log_message(self, *_):
        pass

    def answer(self, status, fields, body):
        self.send_response(status)
        for name, value in ({"Content-Length": len(body)} | fields).items():
            self.send_header(name, str(value))
        self.end_headers()
        self.wfile.write(body)
