"""An installation: one app's data, opened in this process."""

import ctypes
import json
import os
from datetime import date, datetime, timedelta

from . import _frames
from ._library import InvalidArgument, Status, answer, call
from .values import Day, Event, Focus, Summary, Tag


def _when(value):
    """A date or instant as the library reads it: ISO 8601 text."""
    if value is None or isinstance(value, str):
        return value
    if isinstance(value, datetime):
        if value.utcoffset() is None:
            raise InvalidArgument(Status.INVALID_ARGUMENT, f"{value.isoformat()} has no time zone")
        return value.isoformat()
    if isinstance(value, date):
        return value.isoformat()
    raise TypeError(f"a date or time is a str, a date or an aware datetime, not {type(value).__name__}")


def _camel(name):
    head, *rest = name.split("_")
    return head + "".join(word.capitalize() for word in rest)


def _value(value):
    """A Python value as the library's JSON takes it."""
    if isinstance(value, date):
        return _when(value)
    if isinstance(value, timedelta):
        return value.total_seconds()
    if isinstance(value, os.PathLike):
        return os.fspath(value)
    return value


def _object(fields):
    """Keyword arguments as the JSON object of the library: focus_id as focusId."""
    return json.dumps({_camel(key): _value(value) for key, value in fields.items()}, ensure_ascii=False)


def _word(value):
    """A value as a word of a command line."""
    value = _value(value)
    if isinstance(value, str):
        return value
    if isinstance(value, (list, tuple)):
        return ",".join(map(_word, value))
    return json.dumps(value)


class Installation:
    """One app's data, opened in this process: its store, settings, health
    store and cloud sign-in, in the folder `container`.

    A process holds one open installation at a time: opening a second is
    Busy. Close it, or use it as a context manager. Dates and instants are
    taken as ISO 8601 text, a `date` or an aware `datetime`; a date alone is
    its day's start in the installation's zone.
    """

    def __init__(self, container=None, *, time_zone=None, locale=None, now=None):
        """Opens the installation in `container` (default: the user's own),
        in `time_zone` and `locale` (default: the system's), its clock pinned
        to `now` when given."""
        self._handle = None
        options = {
            "container": None if container is None else os.fspath(container),
            "timeZone": time_zone,
            "locale": locale,
            "now": _when(now),
        }
        options = json.dumps({key: value for key, value in options.items() if value is not None})
        handle = ctypes.c_void_p()
        call("open", options, ctypes.byref(handle))
        self._handle = handle.value
        self._zone = None
        self.container = container

    def close(self):
        """Lets what the calls set going finish (announcements, widgets,
        cloud sends) and closes the installation. Closing twice is nothing."""
        handle, self._handle = self._handle, None
        if handle is not None:
            call("close", handle)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def __del__(self):
        # Forgotten open, the installation would keep every later one Busy.
        try:
            self.close()
        except Exception:
            pass

    def __repr__(self):
        state = "open" if self._handle is not None else "closed"
        return f"<tarnwell.Installation {self.container!r} {state}>"

    def _answer(self, name, *arguments):
        return answer(name, self._handle, *arguments)

    def _json(self, name, *arguments):
        return json.loads(self._answer(name, *arguments))

    def set_now(self, when):
        """Moves the pinned clock (an installation opened with `now` only)."""
        call("set_now", self._handle, _when(when))

    def run(self, *words):
        """Runs a command of the command line, run("tag", "list"): the JSON it
        printed, parsed, or None when it printed nothing."""
        text = self._answer("run", json.dumps([_word(each) for each in words], ensure_ascii=False))
        return json.loads(text) if text else None

    def time_zone(self):
        """The installation's IANA time zone, "Europe/Berlin"."""
        if self._zone is None:
            self._zone = self.run("info")["timeZone"]
        return self._zone

    # Events.

    def add_event(self, kind, start, end):
        """Records a "pickup", "walk" or "alive" span (the monitor ran)."""
        return Event.from_json(kind, self._json("add_event", kind, _when(start), _when(end)))

    def edit_event(self, kind, id, *, end, start=None):
        """Moves the ends of a record; a pickup keeps its start."""
        call("edit_event", self._handle, kind, id, _when(start), _when(end))

    def delete_event(self, kind, id):
        """Deletes a pickup; walks and alive spans cannot be deleted."""
        call("delete_event", self._handle, kind, id)

    def list_events(self, kind, start=None, end=None):
        """The records of `kind` with a start or end from `start` to `end`."""
        records = self._json("list_events", kind, _when(start), _when(end))
        return [Event.from_json(kind, each) for each in records]

    def import_file(self, path, format="tarnwell"):
        """Reads the events of a CSV file, "tarnwell" (kind,start,end rows) or
        "aware" (AWARE screen events). Gives what was read, a dict."""
        return self._json("import_file", os.fspath(path), format)

    def import_aware(self, path):
        """Imports an AWARE screen CSV file, then gives the days its pickups
        cover, as days() does."""
        span = self.import_file(path, "aware")["span"]
        if span is None:
            return self._days([])
        return self.days(span["start"], span["end"])

    # Metrics.

    def day(self, date=None):
        """Every metric of the day of `date` (default: today)."""
        return Day.from_json(self._json("day", _when(date)))

    def days(self, start, end):
        """The days from the day of `start` to that of `end`, both included:
        a pandas DataFrame, one row a day, when pandas can be imported, else
        a list of Day."""
        return self._days(self._json("days", _when(start), _when(end)))

    def _days(self, data):
        days = [Day.from_json(each) for each in data]
        pandas = _frames.pandas()
        return days if pandas is None else _frames.days(pandas, days, self.time_zone())

    def summary(self, start, count=7):
        """Totals and averages of `count` days from the day of `start`."""
        return Summary.from_json(self._json("summary", _when(start), count))

    def chart(self, metric, range="week", date=None):
        """The chart model, a dict, of `metric` ("screenTime", "pickups", ...,
        "focus", "failedTimes", "tag:ID") for the "day", "week", "month" or
        "year" of `date` (default: now)."""
        return self._json("chart", metric, range, _when(date))

    def streaks(self):
        """Days in a row the screen-time, pickup and sleep goals were kept, a dict."""
        return self._json("streaks")

    # Focus.

    def tags(self, archived=False):
        """The focus tags in the user's order, or the archived ones."""
        return [Tag.from_json(each) for each in self._json("list_tags", int(archived))]

    def add_tag(self, title, **fields):
        """Makes a tag. Fields: emoji, color ("#rrggbb"), goal (">=SECONDS"
        or "<=SECONDS"), type ("pomodoro:SECONDS", "countdown:SECONDS",
        "addTime"), mindful (bool)."""
        return Tag.from_json(self._json("add_tag", _object({"title": title, **fields})))

    def edit_tag(self, id, **fields):
        """Changes the fields given, title and those of add_tag; goal="none" clears the goal."""
        return Tag.from_json(self._json("edit_tag", id, _object(fields)))

    def delete_tag(self, id, migrate_to=None):
        """Deletes a tag; its sessions move to the tag `migrate_to`, or are deleted."""
        call("delete_tag", self._handle, id, migrate_to)

    def add_focus(self, start, end, **fields):
        """Records a focus session. Fields: tag, goal and progress (seconds),
        type, mode ("easy", "strict"), id (a session of that id is replaced)."""
        return Focus.from_json(self._json("add_focus", _object({"start": start, "end": end, **fields})))

    def focuses(self, start=None, end=None):
        """The focus sessions that start from `start` to `end`."""
        return [Focus.from_json(each) for each in self._json("list_focuses", _when(start), _when(end))]

    def delete_focus(self, id):
        call("delete_focus", self._handle, id)

    # Settings.

    def settings(self):
        """Every setting, a dict of its property name to its value."""
        return {each["name"]: each["value"] for each in self._json("settings")}

    def set_setting(self, name, value):
        """Sets a setting by its property name ("defaultScreenTimeGoal");
        None clears an optional one. Gives the value now set."""
        return self._json("set_setting", name, _word(value))["value"]

    def set_sleep_source(self, bundle, name=None):
        """Takes the night from the application `bundle`, shown as `name`;
        bundle None infers it from phone use."""
        call("set_sleep_source", self._handle, bundle, name)

    # Cloud: the answers are the library's dicts.

    def cloud_sign_in(self, cloud):
        """Signs in to a shared folder or "postgresql://USER@HOST:PORT/DB"."""
        return self._json("cloud_sign_in", os.fspath(cloud))

    def cloud_sign_out(self):
        call("cloud_sign_out", self._handle)

    def sync_pull(self):
        """Fetches what the other devices wrote."""
        return self._json("sync_pull")

    def sync_push(self):
        """Sends every record."""
        return self._json("sync_push")

    def sync_status(self):
        """The account, the sync state and the changes not yet sent."""
        return self._json("sync_status")

    # Widgets, links and shortcuts: the answers are the library's dicts.

    def widget_summaries(self):
        """Every summary published for the home screen's widgets."""
        return self._json("widget_summaries")

    def build_link(self, case, **options):
        """A deep link: build_link("viewFocus", tag="all", widget_family="small")
        gives {"url", "action"}."""
        return self._json("build_link", _object({"case": case, **options}))

    def read_link(self, url):
        """What the app takes from a deep link."""
        return self._json("read_link", url)

    def handle_intent(self, name, **parameters):
        """The answer of the handler of shortcut intent `name` to `parameters`,
        handle_intent("StartToFocusIntent", focus_type=1); a list is given as
        its items."""
        given = {_camel(key): _word(value) for key, value in parameters.items()}
        return self._json("handle_intent", name, json.dumps(given, ensure_ascii=False) if given else None)
