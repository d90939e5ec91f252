"""TarnwellKit from Python: screen time, pickups, sleep inferred from phone
use, focus tags and cloud sync, through libtarnwell's C interface.

    import tarnwell
    with tarnwell.Installation("/tmp/phone", time_zone="Europe/Berlin") as phone:
        phone.add_event("pickup", "2026-11-25T08:00:00Z", "2026-11-25T08:05:00Z")
        print(phone.day("2026-11-25").screen_time)  # 300.0
        frame = phone.days("2026-11-01", "2026-11-30")  # a DataFrame with pandas

Every call is one command of the app, with the same checks and answers as
`tarnwell --json`. A refusal raises TarnwellError with the library's message
(InvalidArgument, NotFound, Busy, Failed by its status); the installation
stays usable. The library is TARNWELL_LIBRARY when set, else the
libtarnwell.so.0.1 installed with this package, else the loader's.
"""

from ._library import Busy, Failed, InvalidArgument, NotFound, Status, TarnwellError, version
from .installation import Installation
from .values import Day, Event, Focus, Hour, Interval, Summary, Tag, Totals

__all__ = [
    "Busy",
    "Day",
    "Event",
    "Failed",
    "Focus",
    "Hour",
    "Installation",
    "Interval",
    "InvalidArgument",
    "NotFound",
    "Status",
    "Summary",
    "Tag",
    "TarnwellError",
    "Totals",
    "version",
]
