"""Takes the programs out of the documentation, and checks that they print what it says.

Usage: snippets.py extract FOLDER PAGE...
       snippets.py run PROGRAMS SESSION

Every C++ block of a page is a whole file, whose name stands on the line before the block:

    `hello.cpp`

    ```cpp
    int main() { std::puts("Hello"); }
    ```

    ```text
    $ hello
    Hello
    ```

A text block that begins with "$ " is the session of the program above it: commands, each with what
it prints. `extract` writes the files, and each session beside its program (hello.session). `run`
runs a session's commands in a new folder that holds the calendars of examples/data, with PROGRAMS
on the path. The commands may use $FILES, a folder on a web server; $ACCOUNT, an account of alice on a
CalDAV server; and $RADICALE, the same on a server without an outbox. Each server runs on 127.0.0.1
while a session names it.
"""

import contextlib
import difflib
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
CALENDARS = ROOT / "examples/data"
BLOCK = re.compile(r"(?:^`([\w.]+)`\n\n?)?^```(cpp|text)\n(.*?)^```$", re.M | re.S)


def extract(folder, *pages):
    files = {}
    for page in pages:
        program = None
        for name, kind, text in BLOCK.findall(Path(page).read_text()):
            if kind == "cpp":
                if not name or name in files:
                    sys.exit(f"{page}: this C++ block has no name of its own:\n{text}")
                files[name], program = text, name
            elif text.startswith("$ "):
                if not program or not program.endswith(".cpp"):
                    sys.exit(f"{page}: this session has no program:\n{text}")
                files[program.removesuffix(".cpp") + ".session"] = text
    for name in files:
        if name.endswith(".cpp") and name.removesuffix(".cpp") + ".session" not in files:
            sys.exit(f"{name} has no session")
    folder = Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.iterdir():
        if old.name not in files:
            old.unlink()
    for name, text in files.items():
        path = folder / name
        if not path.exists() or path.read_text() != text:  # what is unchanged is not built again
            path.write_text(text)


@contextlib.contextmanager
def servers(session):
    """The variables that a session uses."""
    sys.path.insert(0, str(ROOT / "tests/interop"))
    from servers import Server
    variables = {}
    with contextlib.ExitStack() as running:
        if "$FILES" in session:
            nginx = running.enter_context(Server("nginx"))
            for folder in ("root", "root/private"):
                shutil.copytree(CALENDARS, nginx.folder / folder, dirs_exist_ok=True)
            variables["FILES"] = nginx.base.rstrip("/")
        for name, kind in (("ACCOUNT", "sabredav_digest"), ("RADICALE", "radicale")):
            if f"${name}" in session:
                variables[name] = running.enter_context(Server(kind)).base
        yield variables


def run(programs, session):
    expected = Path(session).read_text()
    plain = {name: value for name, value in os.environ.items()
             if not name.lower().endswith("_proxy")}
    with tempfile.TemporaryDirectory() as folder, servers(expected) as variables:
        environment = plain | variables | {
            "PATH": f"{os.path.abspath(programs)}:{os.environ['PATH']}", "TZ": "UTC", "LC_ALL": "C.UTF-8",
            "XDG_DATA_HOME": folder, "EKEventStoreBackend": "sqlite"}
        shutil.copytree(CALENDARS, folder, dirs_exist_ok=True)
        printed = ""
        for command in re.findall(r"^\$ (.*)$", expected, re.M):
            result = subprocess.run(["sh", "-c", command], cwd=folder, env=environment, text=True,
                                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                    stderr=subprocess.STDOUT, timeout=60)
            printed += f"$ {command}\n{result.stdout}"
            if result.returncode:
                printed += f"exit status {result.returncode}\n"
    if printed != expected:
        sys.exit("".join(difflib.unified_diff(
            expected.splitlines(True), printed.splitlines(True), "documented", "printed")))


if __name__ == "__main__":
    mode, *arguments = sys.argv[1:] or [""]
    if mode == "extract" and len(arguments) > 1:
        extract(*arguments)
    elif mode == "run" and len(arguments) == 2:
        run(*arguments)
    else:
        sys.exit(__doc__)
