"""day: the days of an installation and the metrics of one, from Python.

    python3 day.py [--tz ZONE] [--now INSTANT] CONTAINER [DATE]

Opens the installation whose folder is CONTAINER, prints the week up to
DATE (ISO 8601; default: today) as the package gives it (a pandas DataFrame
when pandas can be imported, else a line a day), then, on the last line, the
metrics of DATE's day as one JSON object with the keys and values of
`tarnwell --json day` (its lists and hours left out). --tz is the IANA zone
the days are cut in (default: the system's), --now pins the clock. On
failure it prints the library's message and exits with 1.

With the package installed under PREFIX:
    PYTHONPATH=PREFIX/lib/python python3 day.py CONTAINER
"""

import argparse
import json
import sys
from datetime import timedelta

import tarnwell

# The metrics of a day, as `tarnwell --json day` names them.
METRICS = (
    "startOfDay",
    "screenTime",
    "pickupTimes",
    "longestPickup",
    "checkingEvery",
    "walkingLife",
    "indoorLife",
    "bestBreak",
    "continuouslyUsage",
    "firstPickupDate",
    "lastPickupDate",
    "sleepTime",
    "asleepAt",
)


def print_days(days):
    """A DataFrame prints itself; a Day would print every pickup and hour,
    so without pandas a line a day shows the main metrics."""
    if not isinstance(days, list):
        print(days)
        return

    def clock(seconds):
        return "-" if seconds is None else f"{int(seconds // 3600)}:{int(seconds % 3600 // 60):02d}"

    print("day         screen time  pickups  sleep")
    for each in days:
        pickups = "-" if each.pickup_times is None else each.pickup_times
        print(f"{each.start_of_day.date()}  {clock(each.screen_time):>11}  {pickups:>7}  {clock(each.sleep_time):>5}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("container")
    parser.add_argument("date", nargs="?")
    parser.add_argument("--tz")
    parser.add_argument("--now")
    arguments = parser.parse_args()
    try:
        with tarnwell.Installation(arguments.container, time_zone=arguments.tz, now=arguments.now) as phone:
            day = phone.day(arguments.date)
            # The week that ends on that day, in the installation's zone.
            last = day.start_of_day.date()
            print_days(phone.days(last - timedelta(days=6), last))
            print(json.dumps({key: day.raw[key] for key in METRICS}, separators=(",", ":")))
    except tarnwell.TarnwellError as error:
        print(f"day: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
