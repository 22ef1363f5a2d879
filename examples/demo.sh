#!/usr/bin/env bash
# Shows the example hosts at work on copies of the demo calendars, and then with a web server and a
# CalDAV server that it starts, and fails when what they print or save is not what it should be.
#
# Usage: demo.sh FOLDER_OF_EXAMPLE_PROGRAMS
set -euo pipefail

programs=$(realpath "${1:?usage: demo.sh FOLDER_OF_EXAMPLE_PROGRAMS}")
script=$(realpath "$0")
servers=$(realpath "$(dirname "$0")/../tests/interop/servers.py")
data=$(realpath "$(dirname "$0")/data")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$data"/*.ics "$work"
cd "$work"
touch -d '1 hour ago' ./*.ics # what the demo writes later is younger

heading() { printf '\n== %s ==\n' "$1"; }

# Shows a command line and what is piped in, and keeps that in the file "output" for `expect`.
show() {
  printf '$'
  printf ' %q' "$@"
  printf '\n'
  tee output
}

agenda() { "$programs/agenda" --zone Europe/Berlin "$@" | show agenda "$@"; }

# Fails unless the last output, or another file, holds the text.
expect() {
  grep -qF -- "$1" "${2:-output}" && return
  printf 'demo: "%s" is missing in %s\n' "$1" "${2:-the output}" >&2
  exit 1
}

# The second part, which the first runs again with a web server up: a calendar behind a URL.
put() {
  python3 -c 'import sys, urllib.request as web
request = web.Request(sys.argv[2], open(sys.argv[1], "rb").read(), method="PUT")
web.build_opener(web.ProxyHandler({})).open(request).close()' "$1" "$url"
}

subscription() {
  url=${QUILLMERE_INTEROP_HOME}team.ics
  subscribed=(--state state --from 2026-05-05 --days 1 "$url")
  heading "The team's calendar lies on a web server: the second time there is nothing to fetch"
  put team.ics
  agenda "${subscribed[@]}"
  expect "$url: 9 new"
  agenda "${subscribed[@]}"
  expect "$url: unchanged"

  heading "The web server has another one"
  sed -e 's/^DTSTAMP:20260429T134402Z/DTSTAMP:20260503T000000Z/' \
    -e 's/Quarterly review/Half-yearly review/' team.ics >later.ics
  put later.ics
  agenda "${subscribed[@]}"
  expect "updated: Half-yearly review with Boston"

  heading "It answers with a page for people: that is told, and nothing is forgotten"
  echo "<html>Please log in</html>" >page.html
  put page.html
  agenda "${subscribed[@]}" 2>told && exit 1
  cat told
  expect "no iCalendar document" told
  expect "Half-yearly review with Boston"
}

# The third part, likewise with a CalDAV server: two folders mirror one account.
mirror() { "$programs/caldavsync" "$@" | show caldavsync "$@"; }

round_trip() {
  heading "An account on a CalDAV server gets a calendar, and a folder that mirrors it an event"
  mirror --create Team "$QUILLMERE_INTEROP_BASE" here
  agenda --add "Tea with Søren" --start 2026-05-07T15:00 --end 2026-05-07T15:45 here/Team/Tea.ics
  uid=$(sed -n 's/^added //p' output)
  mirror "$QUILLMERE_INTEROP_BASE" here
  expect "Team: sent 1 new"

  heading "Another folder, on another machine maybe, sees it and changes it"
  mirror "$QUILLMERE_INTEROP_BASE" there
  expect "Team: received 1 new"
  agenda --edit "$uid" --summary "Coffee with Søren" there/Team/Tea.ics
  mirror "$QUILLMERE_INTEROP_BASE" there
  expect "Team: sent 1 changed"
  mirror "$QUILLMERE_INTEROP_BASE" here
  expect "Team: received 1 changed"
  expect "SUMMARY:Coffee with Søren" here/Team/Tea.ics

  heading "Both change it: nothing is lost"
  sed -i 's/Coffee/Cocoa/' here/Team/Tea.ics
  sed -i 's/Coffee/Milk/' there/Team/Tea.ics
  mirror "$QUILLMERE_INTEROP_BASE" there
  mirror "$QUILLMERE_INTEROP_BASE" here
  expect "Team: received 1 changed; 1 conflict"
  expect "SUMMARY:Milk with Søren" here/Team/Tea.ics
  cat here/Team/Tea.ics.conflict-* >kept
  expect "SUMMARY:Cocoa with Søren" kept

  heading "The first folder gets a task and gives up the event"
  printf '%s\r\n' BEGIN:VCALENDAR VERSION:2.0 PRODID:-//Quillmere//Demo//EN BEGIN:VTODO UID:ferry \
    DTSTAMP:20260101T000000Z "SUMMARY:Book the ferry" END:VTODO END:VCALENDAR >here/Team/Ferry.ics
  rm here/Team/Tea.ics
  mirror --dry-run "$QUILLMERE_INTEROP_BASE" here
  expect "Team: would delete at the server Tea.ics"
  mirror "$QUILLMERE_INTEROP_BASE" here
  expect "Team: sent 1 new, 1 deleted"
  mirror "$QUILLMERE_INTEROP_BASE" there
  expect "Team: received 1 new, 1 deleted"
  expect "SUMMARY:Book the ferry" there/Team/Ferry.ics
}
case ${QUILLMERE_INTEROP_SERVER:-} in
  "") ;;
  nginx) subscription; exit ;;
  *) round_trip; exit ;;
esac

week=(--from 2026-05-01 --days 8)

heading "A team's calendar and the public holidays, read for the first time"
agenda --state state "${week[@]}" team.ics feiertage.ics
expect "11:00-11:15  Stand-up (later, because of the fire drill)"
expect "16:00-17:30  Quarterly review with Boston, Boston – 4th floor  [Team Harbour]"
expect "all day      Tag der Arbeit  [Feiertage in Süddeutschland]"
expect "due Tue 2026-05-05 17:00  Book the ferry"

heading "The same again: nothing has changed, so no calendar is read"
agenda --state state "${week[@]}" team.ics feiertage.ics
expect "team.ics: unchanged"
expect "feiertage.ics: unchanged"

heading "A choir's calendar: repeating events, over the end of daylight saving"
agenda --from 2026-10-20 --days 14 chorale.ics
expect "20:00-22:00  Répétition générale, Église Saint-Martin"
expect "20:00-20:45  Appel avec le chœur de Portland"
expect "19:00-19:45  Appel avec le chœur de Portland"
expect "18:00-19:00  Bureau de l’association"
expect "all day      Anniversaire d’Aïcha"
expect "17:30-19:30  Concert d’automne"
expect "all day      Inventaire des partitions (repeats)"
expect "FREQ=YEARLY;BYWEEKNO=44;BYDAY=MO: Encountered unprocessed recurrence properties"

heading "A new event is saved; zones, alarms and the journal stay"
agenda --state state --add "Tea with Søren" --start 2026-05-07T15:00 --end 2026-05-07T15:45 \
  --location "Café Süßholz, upstairs" team.ics
uid=$(sed -n 's/^added //p' output)
agenda --from 2026-05-07 --days 1 team.ics
expect "15:00-15:45  Tea with Søren, Café Süßholz, upstairs"
for kind in VTIMEZONE VALARM VJOURNAL RECURRENCE-ID ATTENDEE; do
  kept=$(grep -c "$kind" team.ics)
  test "$kept" -eq "$(grep -c "$kind" "$data/team.ics")"
  echo "$kind: on $kept lines, as before"
done

heading "Another program renames an event and puts a new one in place of another"
sed -i -e 's/^DTSTAMP:20260501T101000Z/DTSTAMP:20260503T120000Z/' \
  -e 's/^SUMMARY:Lunch with the new colleagues/SUMMARY:Dinner with the new colleagues/' \
  -e 's/^UID:e2c90d17-cancelled@/UID:0b5e8c3f-visit@/' \
  -e 's/^SUMMARY:Budget call/SUMMARY:Visit from Boston/' \
  -e 's/^STATUS:CANCELLED/STATUS:CONFIRMED/' team.ics
agenda --state state "${week[@]}" team.ics
expect "team.ics: 1 new, 1 updated, 1 gone"
expect "new: Visit from Boston"
expect "updated: Dinner with the new colleagues"
expect "gone: Budget call"

heading "The event is renamed, then removed"
agenda --state state --edit "$uid" --summary "Coffee with Søren" team.ics
expect "SUMMARY:Coffee with Søren" team.ics
expect "SEQUENCE:1" team.ics
agenda --state state --remove "$uid" team.ics
agenda --list team.ics
if grep -qF "$uid" output team.ics; then
  echo "demo: the removed event is still there" >&2
  exit 1
fi
expect "Dinner with the new colleagues"

export XDG_DATA_HOME=$work/data # an event store of the demo's own
localstore() { "$programs/localstore" --backend sqlite "$@" | show localstore "$@"; }

heading "The event store, which all of a user's programs share: a calendar and an event in it"
localstore create-calendar Team
localstore add Team --title "Tea with Søren" --start 2026-05-07T15:00 --end 2026-05-07T15:45 \
  --notes "Bring the charts"
uid=$(sed -n 's/^added //p' output)
localstore list Team --from 2026-05-07 --days 1
expect "2026-05-07T15:00	2026-05-07T15:45	Tea with Søren	Bring the charts"

heading "One program watches while another moves the event, then removes it"
"$programs/localstore" --backend sqlite watch >watched &
watcher=$!
trap 'rm -rf "$work"; kill "$watcher"' EXIT
saw() { timeout 30 sh -c 'until grep -qF "$1" watched; do sleep 0.1; done' sh "$1"; }
saw "watching: Team"
localstore change Team "$uid" --start 2026-05-08T16:00
saw "the store has changed"
cat watched
localstore list Team --from 2026-05-07 --days 2
expect "2026-05-08T16:00	2026-05-08T16:45	Tea with Søren	Bring the charts"
localstore remove Team "$uid"
localstore list Team --from 2026-05-07 --days 2
if test -s output; then
  echo "demo: the removed event is still there" >&2
  exit 1
fi

python3 -B "$servers" nginx "$script" "$programs"
python3 -B "$servers" sabredav_digest "$script" "$programs"

heading "All of this is what it should be"
