#!/bin/sh
# Runs every benchmark of the directory $1 and prints three Markdown tables. MB/s are 10^6 bytes in
# a second of processor time, ns are processor time, times are the best of seven rounds. "To its
# limit" is in time, "To libical" in speed. The peers of the third table are bare libcurl and other
# clients; all have the same server, a process on this machine. EVENTS is the size of the generated
# calendar: 200,000 events are about 200 MB, and the run then takes about 1.5 GB of memory.
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
"$programs/XMLBenchmark"

echo
echo '| Measure | ns each | Limit, ns | To its limit | libical, ns | To libical | Target | Met |'
echo '| --- | --- | --- | --- | --- | --- | --- | --- |'
"$programs/RecurrenceBenchmark"

echo
echo '| Measure | Ours | Peer | To the peer | Target | Met |'
echo '| --- | --- | --- | --- | --- | --- |'
"$programs/EngineBenchmark"
"$programs/SyncBenchmark"
"$programs/SubscriptionBenchmark" "$events"
"$programs/EventStoreBenchmark"
