#!/bin/sh
# Runs every benchmark of the directory $1 and prints two Markdown tables. MB/s are 10^6 bytes in a
# second of processor time, ns are processor time, both the best of seven rounds. "To its limit" is
# in time, "To libical" in speed. EVENTS is the size of the generated calendar: 200,000 events are
# about 200 MB, and the run then takes about 1.5 GB of memory.
set -eu
programs=$1
events=${EVENTS:-200000}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo '| Measure | MB/s | Of its limit | To libical | Target | Met |'
echo '| --- | --- | --- | --- | --- | --- |'
"$programs/ReaderBenchmark" "$events"
"$programs/GenerateCalendar" "$events" "$work/calendar.ics"
"$programs/PeakMemory" "$events" "$work/calendar.ics"
"$programs/WriterBenchmark" "$events"

echo
echo '| Measure | ns each | Limit, ns | To its limit | libical, ns | To libical | Target | Met |'
echo '| --- | --- | --- | --- | --- | --- | --- | --- |'
"$programs/RecurrenceBenchmark"
