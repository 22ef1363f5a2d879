"""Lists and fetches the collection at the URL given, by python-caldav. Prints the number of items,
the bytes of their texts, the seconds it took and by how many bytes the resident memory rose at
most."""

import sys
import time

try:
    import caldav
except ImportError:
    sys.exit(127)  # as a shell tells of a program that is not there


def kilobytes(name):
    with open("/proc/self/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith(name + ":"))


client = caldav.DAVClient(url=sys.argv[1])
calendar = client.calendar(url=sys.argv[1])

before = kilobytes("VmRSS")
start = time.monotonic()
listed = calendar.objects_by_sync_token()
events = calendar.calendar_multiget([item.url for item in listed])
seconds = time.monotonic() - start
memory = 1024 * (kilobytes("VmHWM") - before)
print(len(events), sum(len(event.data.encode()) for event in events), seconds, memory)
