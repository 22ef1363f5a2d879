"""How each server of the tests is set up: a function writes what it needs into its site and starts it there.

All know the users alice and bob, with one password; an address is mailto:USER@example.com.
"""

import base64
import contextlib
import hashlib
import imaplib
import os
import shutil
import socket
import sqlite3
import ssl
import time
import urllib.request
from functools import partial
from pathlib import Path
from typing import Callable, NamedTuple

USERS, PASSWORD = ("alice", "bob"), "secret"
USER = USERS[0]  # whom tests log in as
HERE = Path(__file__).resolve().parent


def request(method, url, user=USER, authorities=None):
    """Asks for a URL as a user, by Basic unless the server insists on Digest."""
    passwords = urllib.request.HTTPPasswordMgrWithPriorAuth()
    passwords.add_password(None, url, user, PASSWORD, is_authenticated=True)
    opener = urllib.request.build_opener(
        urllib.request.ProxyHandler({}), urllib.request.HTTPBasicAuthHandler(passwords),
        urllib.request.HTTPDigestAuthHandler(passwords),
        urllib.request.HTTPSHandler(context=ssl.create_default_context(cafile=authorities)))
    with opener.open(urllib.request.Request(url, method=method), timeout=20) as answer:
        answer.read()


def radicale(site):
    site.write("users", "".join(f"{user}:{PASSWORD}\n" for user in USERS))
    configuration = site.write("config", f"""\
[server]
hosts = 127.0.0.1:{site.port}
[auth]
type = htpasswd
htpasswd_filename = {site.folder}/users
htpasswd_encryption = plain
delay = 0
[storage]
filesystem_folder = {site.folder}/collections
""")
    site.start("radicale", "--config", configuration)


def xandikos(site):
    site.start("xandikos", "--directory", site.folder / "collections", "--defaults",
               "--current-user-principal", f"/{USER}", "--listen-address", "127.0.0.1",
               "--port", site.port, environment={"EMAIL": f"{USER}@example.com"})


# The tables that this version's own scripts make.
SABREDAV_TABLES = """
CREATE TABLE calendarobjects (id integer primary key asc, calendardata blob, uri text,
  calendarid integer, lastmodified integer, etag text, size integer, componenttype text,
  firstoccurence integer, lastoccurence integer);
CREATE TABLE calendars (id integer primary key asc, principaluri text, displayname text, uri text,
  ctag integer, description text, calendarorder integer, calendarcolor text, timezone text,
  components text, transparent bool);
CREATE TABLE principals (id integer primary key asc, uri text, email text, displayname text,
  vcardurl text, UNIQUE(uri));
CREATE TABLE groupmembers (id integer primary key asc, principal_id integer, member_id integer,
  UNIQUE(principal_id, member_id));
CREATE TABLE users (id integer primary key asc, username text, digesta1 text, UNIQUE(username));
"""


def sabredav(site, authentication):
    path = site.folder / "sabredav.sqlite"
    with contextlib.closing(sqlite3.connect(path)) as database, database:
        database.executescript(SABREDAV_TABLES)
        for user in USERS:
            digest = hashlib.md5(f"{user}:SabreDAV:{PASSWORD}".encode()).hexdigest()
            database.execute("INSERT INTO users (username, digesta1) VALUES (?, ?)", (user, digest))
            database.execute("INSERT INTO principals (uri, email, displayname) VALUES (?, ?, ?)",
                             (f"principals/{user}", f"{user}@example.com", user.title()))
    # Its workers would outlive it: it answers one request after another.
    site.start("php", "-d", "display_errors=0", "-S", f"127.0.0.1:{site.port}",
               HERE / "sabredav.php",
               environment={"DATABASE": str(path), "AUTHENTICATION": authentication})


class LocalIMAP(imaplib.IMAP4):
    """IMAP over a local socket, whose path stands for the host."""

    def _create_socket(self, timeout):
        local = socket.socket(socket.AF_UNIX)
        local.settimeout(20)
        local.connect(self.host)
        return local

    def must(self, command, *arguments):
        status, lines = getattr(self, command)(*arguments)
        if status != "OK":
            raise RuntimeError(f"{command} {arguments}: {lines}")


def cyrus(site, mechanisms=""):
    if os.geteuid() != 0:
        raise RuntimeError("only root can start Cyrus, which then runs as the user cyrus")
    folder = site.folder / "cyrus"
    folder.mkdir()
    # Where a user has a folder here, Cyrus keeps what it was asked and what it answered.
    for user in USERS:
        (folder / "state/log" / user).mkdir(parents=True)
    (site.folder / "logs/traffic").symlink_to(folder / "state/log")
    tls = ""
    if certificates := site.certificates:
        tls = f"tls_server_cert: {folder}/server.pem\ntls_server_key: {folder}/server.key\n"
        for kind in ("pem", "key"):
            shutil.copyfile(certificates / f"good.{kind}", folder / f"server.{kind}")
    configuration = site.write("cyrus/imapd.conf", f"""\
configdirectory: {folder}/state
defaultpartition: default
partition-default: {folder}/mail
sievedir: {folder}/sieve
proc_path: {folder}/proc
mboxname_lockpath: {folder}/lock
servername: example.com
defaultdomain: example.com
virtdomains: off
admins: cyrus
httpmodules: caldav
caldav_realm: example.com
calendar_user_address_set: example.com
caldav_create_default: yes
caldav_create_sched: yes
caldav_allowscheduling: on
allowplaintext: yes
sasl_pwcheck_method: auxprop
sasl_auxprop_plugin: sasldb
sasl_sasldb_path: {folder}/sasldb
{f"sasl_mech_list: {mechanisms}" if mechanisms else ""}
# Without it Digest asks again for ever.
sasl_reauth_timeout: 1440
{tls}""")
    services = site.write("cyrus/cyrus.conf", f"""\
START {{
  recover cmd="ctl_cyrusdb -C {configuration} -r"
}}
SERVICES {{
  imap cmd="imapd -C {configuration}" listen="{folder}/imap" prefork=1
  http cmd="httpd -C {configuration}{" -s" if tls else ""}" listen="127.0.0.1:{site.port}" prefork=1
}}
""")
    for user in ("cyrus", *USERS):
        site.run("saslpasswd2", "-p", "-c", "-f", folder / "sasldb", "-u", "example.com", user,
                 text=PASSWORD)
    site.run("chown", "-R", "cyrus:mail", folder)
    site.start("cyrmaster", "-C", configuration, "-M", services, "-p", folder / "pid",
               until=folder / "imap")
    with LocalIMAP(str(folder / "imap")) as imap:
        imap.must("login", "cyrus", PASSWORD)
        for user in USERS:
            imap.must("create", f"user.{user}")
            # The first visit makes the calendar, the inbox and the outbox.
            request("PROPFIND", f"{site.origin}/dav/calendars/user/{user}/", user, site.authorities)
            # Others find the user and see when the user is busy.
            imap.must("setacl", f"user.{user}.#calendars", "anyone", "l9")


class Kind(NamedTuple):
    set_up: Callable  # of a site
    base: str  # the path that a login starts from
    home: str  # the path below which USER may make collections
    tls: bool = False


CYRUS = ("/dav/principals/", f"/dav/calendars/user/{USER}/")
SABREDAV = ("/", f"/calendars/{USER}/")
SERVERS = {
    "cyrus_basic": Kind(partial(cyrus, mechanisms="PLAIN"), *CYRUS),
    "cyrus_digest": Kind(cyrus, *CYRUS),
    "cyrus_tls": Kind(cyrus, *CYRUS, tls=True),
    "radicale": Kind(radicale, "/", f"/{USER}/"),
    "sabredav_basic": Kind(partial(sabredav, authentication="basic"), *SABREDAV),
    "sabredav_digest": Kind(partial(sabredav, authentication="digest"), *SABREDAV),
    "xandikos": Kind(xandikos, "/", f"/{USER}/calendars/"),
}
