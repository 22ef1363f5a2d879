"""How each server is set up: a function writes what it needs into its site and starts it there.

All know the users alice and bob, with one password; an address is mailto:USER@example.com.
"""

import contextlib
import hashlib
import imaplib
import os
import shutil
import socket
import sqlite3
import ssl
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
                             (f"principals/{user}", f"{user}@example.com", user))
        # Only a user's proxies may look at the user: so alice is one of bob's.
        proxies = database.execute("INSERT INTO principals (uri) VALUES (?)",
                                   ("principals/bob/calendar-proxy-write",)).lastrowid
        database.execute("INSERT INTO groupmembers (principal_id, member_id)"
                         " SELECT ?, id FROM principals WHERE uri = 'principals/alice'", (proxies,))
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


def cyrus(site, mechanisms="DIGEST-MD5 PLAIN"):
    if os.geteuid() != 0:
        raise RuntimeError("only root can start Cyrus, which then runs as the user cyrus")
    folder = site.folder / "cyrus"
    folder.mkdir()
    # Where a user has a folder here, Cyrus keeps what it was asked and what it answered.
    for user in USERS:
        (folder / "state/log" / user).mkdir(parents=True)
    (site.folder / "logs/traffic").symlink_to(folder / "state/log")
    tls = (f"tls_server_cert: {site.folder}/good.pem\ntls_server_key: {site.folder}/good.key\n"
           if site.tls else "")
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
unixhierarchysep: no
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
sasl_mech_list: {mechanisms}
# Without it Digest asks again for ever.
sasl_reauth_timeout: 1440
{tls}""")
    httpd = f"httpd -C {configuration}" + (" -s" if site.tls else "")
    services = site.write("cyrus/cyrus.conf", f"""\
START {{
  recover cmd="ctl_cyrusdb -C {configuration} -r"
}}
SERVICES {{
  imap cmd="imapd -C {configuration}" listen="{folder}/imap" prefork=1
  http cmd="{httpd}" listen="127.0.0.1:{site.port}" prefork=1
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


def nginx(site, server):
    """Starts nginx with that in its one server block."""
    tls = (f"ssl_certificate {site.folder}/good.pem; ssl_certificate_key {site.folder}/good.key;"
           if site.tls else "")
    folder = site.folder / "nginx"
    folder.mkdir()
    configuration = site.write("nginx/nginx.conf", f"""\
{"user root;" if os.geteuid() == 0 else ""}
daemon off;
pid {folder}/pid;
events {{ }}
http {{
  access_log {site.folder}/logs/access;
  client_max_body_size 0;
  client_body_temp_path {folder}/bodies;
  fastcgi_temp_path {folder}/fastcgi;
  proxy_temp_path {folder}/proxy;
  scgi_temp_path {folder}/scgi;
  uwsgi_temp_path {folder}/uwsgi;
  server {{
    listen 127.0.0.1:{site.port}{" ssl" if site.tls else ""};
    {tls}
{server}
  }}
}}
""")
    site.start("nginx", "-e", site.folder / "logs/errors", "-c", configuration)


def files(site):
    """Serves the folder root; below dav/ and private/ it takes PUT, and private/ is for USER."""
    for name in ("root/private", "root/dav"):
        (site.folder / name).mkdir(parents=True)
    users = site.write("users", f"{USER}:{{PLAIN}}{PASSWORD}\n")
    nginx(site, f"""\
    root {site.folder}/root;
    types {{ text/calendar ics; }}
    etag on;
    gzip on;
    gzip_types text/calendar;
    gzip_min_length 0;
    location /dav/ {{ dav_methods PUT DELETE; }}
    location /private/ {{
      dav_methods PUT DELETE;
      auth_basic private;
      auth_basic_user_file {users};
    }}
""")


DAVICAL = Path("/usr/share/davical")
DAVICAL_USERS = "".join(f"""
INSERT INTO usr (active, email_ok, updated, username, password, fullname, email)
  VALUES (TRUE, current_date, current_date, '{user}', '**{PASSWORD}', '{user}',
    '{user}@example.com');
INSERT INTO principal (type_id, user_no, displayname, default_privileges)
  SELECT 1, user_no, fullname,
      privilege_to_bits(ARRAY['caldav:read-free-busy', 'caldav:schedule-query-freebusy'])
    FROM usr WHERE username = '{user}';
""" for user in USERS) + """
-- Makes alice one of bob's proxies.
INSERT INTO grants (by_principal, to_principal, privileges)
  SELECT bob.principal_id, alice.principal_id, privilege_to_bits(ARRAY['DAV::read', 'DAV::write'])
    FROM principal alice, principal bob
    WHERE alice.displayname = 'alice' AND bob.displayname = 'bob';
"""


def davical(site):
    binaries = max(Path("/usr/lib/postgresql").glob("*/bin"),
                   key=lambda path: int(path.parent.name))
    cluster = site.folder / "postgresql"
    cluster.mkdir()
    # PostgreSQL refuses to run as root.
    as_owner = []
    if os.geteuid() == 0:
        shutil.chown(cluster, "postgres", "postgres")
        as_owner = ["setpriv", "--reuid=postgres", "--regid=postgres", "--clear-groups"]
    environment = {"PGHOST": str(cluster), "PGUSER": "postgres", "TMPDIR": str(cluster)}
    site.run(*as_owner, binaries / "initdb", "--auth=trust", "--username=postgres", "--no-sync",
             "--encoding=UTF8", "--locale=C", "--pgdata", cluster / "data")
    options = {"listen_addresses": "", "unix_socket_directories": cluster, "fsync": "off",
               "dynamic_shared_memory_type": "mmap", "max_connections": 20}
    site.start(*as_owner, binaries / "postgres", "-D", cluster / "data",
               *(f"--{name}={value}" for name, value in options.items()),
               until=cluster / ".s.PGSQL.5432")
    site.run(*as_owner, DAVICAL / "dba/create-database.sh", "davical", PASSWORD,
             environment=environment)
    site.run("psql", "-q", "-v", "ON_ERROR_STOP=1", "davical", text=DAVICAL_USERS,
             environment=environment)
    # It looks for its configuration beside the folder of its scripts.
    pages = site.folder / "davical/htdocs"
    pages.mkdir(parents=True)
    for name in ("always.php", "caldav.php"):
        (pages / name).symlink_to(DAVICAL / "htdocs" / name)
    (pages.parent / "inc").symlink_to(DAVICAL / "inc")
    (pages.parent / "config").mkdir()
    site.write("davical/config/config.php", f"""<?php
$c->pg_connect[] = 'dbname=davical user=davical_app host={cluster}';
$c->http_auth_mode = 'Digest';
$c->domain_name = '127.0.0.1';
$c->admin_email = 'admin@example.com';
""")
    gateway = site.folder / "php"
    # Out of its reach is the configuration of the whole machine.
    reachable = ":".join(map(str, (site.folder, "/usr/share/")))
    site.start("php-cgi", "-d", f"open_basedir={reachable}", "-d", "display_errors=0",
               "-b", gateway, until=gateway, environment={"PHP_FCGI_MAX_REQUESTS": "0"})
    nginx(site, f"""\
    location / {{
      fastcgi_split_path_info ^(/caldav\\.php)(/.*)$;
      include /etc/nginx/fastcgi_params;
      fastcgi_param SCRIPT_FILENAME {pages}/caldav.php;
      fastcgi_param SCRIPT_NAME /caldav.php;
      fastcgi_param PATH_INFO $fastcgi_path_info;
      fastcgi_pass unix:{gateway};
    }}
""")


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
    "davical_digest": Kind(davical, "/caldav.php/", f"/caldav.php/{USER}/"),
    "nginx": Kind(files, "/", "/dav/"),
    "nginx_tls": Kind(files, "/", "/dav/", tls=True),
    "radicale": Kind(radicale, "/", f"/{USER}/"),
    "sabredav_basic": Kind(partial(sabredav, authentication="basic"), *SABREDAV),
    "sabredav_digest": Kind(partial(sabredav, authentication="digest"), *SABREDAV),
    "xandikos": Kind(xandikos, "/", f"/{USER}/calendars/"),
}
