"""The library's answers as frozen dataclasses.

Instants are aware datetimes in the installation's zone, durations float
seconds, what the library does not know None. `raw` keeps the JSON a value
was read from, for keys that have no attribute.
"""

from dataclasses import dataclass, field
from datetime import datetime, time


def _instant(text):
    return None if text is None else datetime.fromisoformat(text)


def _seconds(value):
    return None if value is None else float(value)


def _raw():
    return field(default=None, repr=False, compare=False)


@dataclass(frozen=True)
class Interval:
    start: datetime
    end: datetime

    @property
    def duration(self):
        """Seconds from start to end."""
        return (self.end - self.start).total_seconds()

    @classmethod
    def from_json(cls, data):
        return None if data is None else cls(_instant(data["start"]), _instant(data["end"]))


def _intervals(data):
    return tuple(Interval.from_json(each) for each in data)


@dataclass(frozen=True)
class Hour:
    interval: Interval
    screen_time: float | None
    pickup_times: int | None
    checking_every: float | None
    walking_life: float | None

    @classmethod
    def from_json(cls, data):
        return cls(
            interval=Interval.from_json(data["interval"]),
            screen_time=_seconds(data["screenTime"]),
            pickup_times=data["pickupTimes"],
            checking_every=_seconds(data["checkingEvery"]),
            walking_life=_seconds(data["walkingLife"]),
        )


@dataclass(frozen=True)
class Day:
    """Every metric of a day, its night and its hours."""

    start_of_day: datetime
    screen_time: float | None
    pickup_times: int | None
    longest_pickup: float | None
    checking_every: float | None
    walking_life: float | None
    indoor_life: float | None
    best_break: Interval | None
    continuously_usage: Interval | None
    first_pickup_date: datetime | None
    last_pickup_date: datetime | None
    sleep_time: float | None
    sleeps: tuple[Interval, ...]
    asleep_at: datetime | None
    breaks: tuple[Interval, ...]
    pickups: tuple[Interval, ...]
    walks: tuple[Interval, ...]
    no_datas: tuple[Interval, ...]
    hours: tuple[Hour, ...]
    raw: dict = _raw()

    @classmethod
    def from_json(cls, data):
        return cls(
            start_of_day=_instant(data["startOfDay"]),
            screen_time=_seconds(data["screenTime"]),
            pickup_times=data["pickupTimes"],
            longest_pickup=_seconds(data["longestPickup"]),
            checking_every=_seconds(data["checkingEvery"]),
            walking_life=_seconds(data["walkingLife"]),
            indoor_life=_seconds(data["indoorLife"]),
            best_break=Interval.from_json(data["bestBreak"]),
            continuously_usage=Interval.from_json(data["continuouslyUsage"]),
            first_pickup_date=_instant(data["firstPickupDate"]),
            last_pickup_date=_instant(data["lastPickupDate"]),
            sleep_time=_seconds(data["sleepTime"]),
            sleeps=_intervals(data["sleeps"]),
            asleep_at=_instant(data["asleepAt"]),
            breaks=_intervals(data["breaks"]),
            pickups=_intervals(data["pickups"]),
            walks=_intervals(data["walks"]),
            no_datas=_intervals(data["noDatas"]),
            hours=tuple(Hour.from_json(each) for each in data["hours"]),
            raw=data,
        )


@dataclass(frozen=True)
class Totals:
    total: float
    average: float


@dataclass(frozen=True)
class Summary:
    """Totals and averages of a run of days."""

    start: datetime
    count: int
    screen_time: Totals
    pickup_times: Totals
    walking_life: Totals
    indoor_life: Totals
    longest_pickup: float | None
    average_checking_every: float | None
    average_best_break: float | None
    average_continuously_usage: float | None
    average_sleep_time: float | None
    average_first_pickup: time | None
    average_last_pickup: time | None
    raw: dict = _raw()

    @classmethod
    def from_json(cls, data):
        def clock(text):
            return None if text is None else time.fromisoformat(text)

        return cls(
            start=_instant(data["start"]),
            count=data["count"],
            screen_time=Totals(**data["screenTime"]),
            pickup_times=Totals(**data["pickupTimes"]),
            walking_life=Totals(**data["walkingLife"]),
            indoor_life=Totals(**data["indoorLife"]),
            longest_pickup=_seconds(data["longestPickup"]),
            average_checking_every=_seconds(data["averageCheckingEvery"]),
            average_best_break=_seconds(data["averageBestBreak"]),
            average_continuously_usage=_seconds(data["averageContinuouslyUsage"]),
            average_sleep_time=_seconds(data["averageSleepTime"]),
            average_first_pickup=clock(data["averageFirstPickup"]),
            average_last_pickup=clock(data["averageLastPickup"]),
            raw=data,
        )


@dataclass(frozen=True)
class Event:
    """A pickup, a walk or an alive span (the monitor ran)."""

    kind: str
    id: str
    device_id: str
    start: datetime
    end: datetime
    deleted: bool
    # Only pickups have it: None for walks and alive spans.
    ignored_for_sleep: bool | None
    raw: dict = _raw()

    @classmethod
    def from_json(cls, kind, data):
        return cls(
            kind=kind,
            id=data["id"],
            device_id=data["deviceId"],
            start=_instant(data["start"]),
            end=_instant(data["end"]),
            deleted=data["isDeleted"],
            ignored_for_sleep=data.get("isIgnoredForSleepTime"),
            raw=data,
        )


@dataclass(frozen=True)
class Tag:
    """A focus tag. `goal` is written as add_tag takes it: ">=3600", "<=1800"."""

    id: str
    title: str
    display_title: str
    emoji: str | None
    color: str
    sort: int
    is_default: bool
    archived: bool
    mindful: bool
    goal: str | None
    created: datetime
    raw: dict = _raw()

    @classmethod
    def from_json(cls, data):
        return cls(
            id=data["id"],
            title=data["title"],
            display_title=data["displayTitle"],
            emoji=data["emoji"],
            color=data["color"],
            sort=data["sort"],
            is_default=data["isDefault"],
            archived=data["isArchived"],
            mindful=data["syncToMindfulness"],
            goal=_goal(data["focusGoal"]),
            created=_instant(data["created"]),
            raw=data,
        )


def _goal(data):
    # {"moreThanOrEqualTo": 3600.0} as ">=3600".
    for key, sign in (("moreThanOrEqualTo", ">="), ("lessThanOrEqualTo", "<=")):
        if data and key in data:
            seconds = float(data[key])
            return sign + str(int(seconds) if seconds.is_integer() else seconds)
    return None


@dataclass(frozen=True)
class Focus:
    """A focus session: `type` its timer ("pomodoro", "countdown", "addTime"), `mode` "easy" or "strict"."""

    id: str
    tag_id: str | None
    start: datetime
    end: datetime
    goal: float
    progress: float
    type: str | None
    mode: str | None
    device_id: str
    deleted: bool
    raw: dict = _raw()

    @classmethod
    def from_json(cls, data):
        return cls(
            id=data["id"],
            tag_id=data["tagId"],
            start=_instant(data["start"]),
            end=_instant(data["end"]),
            goal=float(data["goal"]),
            progress=float(data["progress"]),
            type=data["typeString"],
            mode=data["modeString"],
            device_id=data["deviceId"],
            deleted=data["isDeleted"],
            raw=data,
        )
