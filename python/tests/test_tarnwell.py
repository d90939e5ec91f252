import math
import os
import shutil
import subprocess
import sys
from datetime import date, datetime, timedelta, timezone
from pathlib import Path

import pytest

import tarnwell

PICKUPS = [  # the last one crosses midnight: it counts on both days
    ("2026-11-23T08:00:00Z", "2026-11-23T08:10:00Z"),
    ("2026-11-24T09:00:00Z", "2026-11-24T09:30:00Z"),
    ("2026-11-24T12:00:00Z", "2026-11-24T12:01:30Z"),
    ("2026-11-24T23:50:00Z", "2026-11-25T00:20:00Z"),
]


def without_pandas(monkeypatch):
    monkeypatch.setitem(sys.modules, "pandas", None)


# Opening and closing.


def test_one_installation_at_a_time(container, tmp_path):
    with tarnwell.Installation(container) as first:
        with pytest.raises(tarnwell.Busy) as refused:
            tarnwell.Installation(tmp_path / "other")
        assert refused.value.status is tarnwell.Status.BUSY
        assert "another installation is open" in str(refused.value)
        first.day()
    with pytest.raises(tarnwell.InvalidArgument, match="closed"):
        first.day()
    first.close()  # twice is nothing
    tarnwell.Installation(tmp_path / "other").close()


def test_a_forgotten_installation_does_not_keep_the_next_out(container):
    tarnwell.Installation(container)
    tarnwell.Installation(container).close()


@pytest.mark.parametrize("options, message", [
    (lambda tmp: {"container": tmp / "file" / "phone"}, "is not a folder"),
    (lambda tmp: {"container": tmp / "phone", "time_zone": "Mars/Olympus"}, 'unknown time zone "Mars/Olympus"'),
    (lambda tmp: {"container": tmp / "phone", "now": "yesterday"}, '"yesterday" is not an ISO 8601 date or time'),
])
def test_an_installation_that_cannot_open_says_why(tmp_path, options, message):
    (tmp_path / "file").write_text("")
    with pytest.raises(tarnwell.TarnwellError, match=message):
        tarnwell.Installation(**options(tmp_path))
    tarnwell.Installation(tmp_path / "phone").close()  # nothing was left open


def test_the_library_installed_beside_the_package_is_found(tmp_path):
    library = Path(os.environ.get("TARNWELL_LIBRARY") or pytest.skip("TARNWELL_LIBRARY is not set"))
    (tmp_path / "lib").mkdir()
    (tmp_path / "lib" / "libtarnwell.so.0.1").symlink_to(library.resolve())
    shutil.copytree(Path(tarnwell.__file__).parent, tmp_path / "lib" / "python" / "tarnwell")
    environment = {key: value for key, value in os.environ.items() if key != "TARNWELL_LIBRARY"}
    found = subprocess.run(
        [sys.executable, "-c", "import tarnwell._library as l; print(l.library()._name, l.version())"],
        cwd=tmp_path, env=dict(environment, PYTHONPATH=str(tmp_path / "lib" / "python")),
        capture_output=True, text=True, check=True).stdout.split()
    assert found == [str(tmp_path / "lib" / "libtarnwell.so.0.1"), "0.1.0"]


# Refusals: an exception with the library's message, then the installation goes on.


def test_bad_input_raises_and_the_installation_goes_on(phone):
    with pytest.raises(ValueError, match='"2026-13-01" is not an ISO 8601 date or time') as refused:
        phone.day("2026-13-01")
    assert refused.value.status is tarnwell.Status.INVALID_ARGUMENT
    with pytest.raises(tarnwell.InvalidArgument, match="kind"):
        phone.add_event("nap", *PICKUPS[0])
    with pytest.raises(ValueError, match="no time zone"):
        phone.day(datetime(2026, 11, 25))
    with pytest.raises(ValueError, match="NUL"):
        phone.day("2026-11-25\0garbage")
    phone.add_event("pickup", *PICKUPS[0])
    assert phone.day("2026-11-23").screen_time == 600.0


@pytest.mark.parametrize("call", [
    lambda phone: phone.edit_event("pickup", "missing", end="2026-11-25T10:00:00Z"),
    lambda phone: phone.delete_event("pickup", "missing"),
    lambda phone: phone.edit_tag("missing", title="Reading"),
    lambda phone: phone.delete_tag("missing"),
    lambda phone: phone.delete_focus("missing"),
])
def test_an_unknown_id_is_not_found(phone, call):
    with pytest.raises(LookupError, match="missing") as refused:
        call(phone)
    assert refused.value.status is tarnwell.Status.NOT_FOUND


# Values.


def test_days_agree_with_the_command_line(phone, command_line, monkeypatch):
    without_pandas(monkeypatch)
    for start, end in PICKUPS:
        phone.add_event("pickup", start, end)
    days = phone.days(date(2026, 11, 23), "2026-11-25")
    phone.close()
    summary = command_line("summary", "--from", "2026-11-23", "--count", "3")
    assert summary["screenTime"]["total"] == sum(day.screen_time for day in days)
    assert summary["pickupTimes"]["total"] == sum(day.pickup_times for day in days)
    assert [day.raw for day in days] == [command_line("day", f"2026-11-{n}") for n in (23, 24, 25)]


def test_a_day_reads_into_python_values(phone):
    for start, end in PICKUPS[1:3]:
        phone.add_event("pickup", start, end)
    day = phone.day("2026-11-24")
    assert (day.screen_time, day.pickup_times, day.longest_pickup) == (1890.0, 2, 1800.0)
    assert day.start_of_day == datetime(2026, 11, 24, tzinfo=timezone.utc)
    assert day.pickups[0] == tarnwell.Interval(datetime(2026, 11, 24, 9, tzinfo=timezone.utc),
                                               datetime(2026, 11, 24, 9, 30, tzinfo=timezone.utc))
    assert day.continuously_usage.duration == 1800.0
    assert len(day.hours) == 24 and day.hours[9].screen_time == 1800.0 and day.hours[8].screen_time is None
    empty = phone.day("2026-11-20")
    assert (empty.screen_time, empty.pickup_times, empty.first_pickup_date, empty.best_break) == (None,) * 4


def test_records_round_trip(phone):
    pickup = phone.add_event("pickup", *PICKUPS[0])
    phone.edit_event("pickup", pickup.id, end=datetime(2026, 11, 23, 8, 20, tzinfo=timezone.utc))
    [moved] = phone.list_events("pickup", "2026-11-23", "2026-11-24")
    assert (moved.id, moved.end.minute, moved.ignored_for_sleep) == (pickup.id, 20, False)
    assert phone.add_event("walk", *PICKUPS[1]).ignored_for_sleep is None

    tag = phone.add_tag("Reading", emoji="📚", goal=">=3600", mindful=True)
    assert (tag.title, tag.emoji, tag.goal, tag.mindful) == ("Reading", "📚", ">=3600", True)
    assert phone.edit_tag(tag.id, goal="<=1800", mindful=False).goal == "<=1800"
    focus = phone.add_focus("2026-11-25T12:00:00Z", "2026-11-25T12:25:00Z", tag=tag.id, mode="strict")
    assert phone.focuses() == [focus] and focus.goal == 1500.0
    phone.delete_tag(tag.id)
    assert phone.focuses() == [] and tag.id not in [each.id for each in phone.tags()]


def test_python_names_and_values_reach_the_library(phone):
    link = phone.build_link("viewFocus", tag="all", widget_name="w", widget_family="small")
    assert "widget_family=small" in link["url"] and phone.read_link(link["url"])["readable"]
    answer = phone.handle_intent("StartToFocusIntent", focus_type=1, duration=timedelta(minutes=25))
    assert answer["userInfo"] == {"duration": 1500.0, "focusType": 1}
    assert phone.set_setting("dynamicPickupGoal", True) is True
    assert phone.set_setting("dayOfDynamicPickupGoalUpdating", None) is None
    assert phone.settings()["dynamicPickupGoal"] is True


def test_the_pinned_clock_moves(phone):
    phone.set_now(datetime(2026, 11, 27, 9, tzinfo=timezone.utc))
    assert phone.day().start_of_day.day == 27
    assert phone.run("info")["now"].startswith("2026-11-27T09:00")


# Days as a DataFrame, or as a list without pandas.


def test_days_make_a_frame_in_the_installations_zone(tmp_path):
    pd = pytest.importorskip("pandas")
    now = datetime(2026, 10, 27, 20, tzinfo=timezone.utc)
    with tarnwell.Installation(tmp_path / "phone", time_zone="Europe/Berlin", now=now) as phone:
        phone.add_event("pickup", "2026-10-26T08:00:00+01:00", "2026-10-26T08:05:00+01:00")
        frame = phone.days("2026-10-24", "2026-10-27")  # summer time ends on the 25th
    assert frame.shape == (4, 12) and frame.index.name == "start"
    assert str(frame.index.tz) == "Europe/Berlin"
    assert [stamp.utcoffset().total_seconds() for stamp in frame.index] == [7200, 7200, 3600, 3600]
    assert frame.dtypes["pickup_times"] == "Int64" and frame.dtypes["screen_time"] == "float64"
    assert str(frame.dtypes["first_pickup"]) == "datetime64[ns, Europe/Berlin]"
    monday = frame.loc[pd.Timestamp("2026-10-26", tz="Europe/Berlin")]
    assert (monday.screen_time, monday.pickup_times, monday.continuously_usage) == (300.0, 1, 300.0)
    assert monday.first_pickup == pd.Timestamp("2026-10-26T08:00:00+01:00")
    assert math.isnan(frame.iloc[0].screen_time) and frame.iloc[0].pickup_times is pd.NA


def test_days_without_pandas_are_a_list(phone, monkeypatch):
    without_pandas(monkeypatch)
    days = phone.days("2026-11-24", "2026-11-25")
    assert [type(day) for day in days] == [tarnwell.Day] * 2


def aware_file(path, rows):
    lines = ["timestamp,device_id,screen_status"]
    lines += [f"{int(datetime.fromisoformat(when).timestamp() * 1000)},phone,{status}" for when, status in rows]
    path.write_text("\n".join(lines) + "\n")
    return path


def test_import_aware_gives_the_days_it_covers(phone, tmp_path, monkeypatch):
    without_pandas(monkeypatch)
    rows = []
    for start, end in PICKUPS:
        rows += [(start.replace("Z", "+00:00"), 3), (end.replace("Z", "+00:00"), 2)]
    days = phone.import_aware(aware_file(tmp_path / "screen.csv", [("2026-11-20T07:00:00+00:00", 0), *rows]))
    assert [day.start_of_day.day for day in days] == [23, 24, 25]
    assert [day.screen_time for day in days] == [600.0, 2490.0, 1200.0]
    assert phone.import_aware(aware_file(tmp_path / "idle.csv", rows[1:2])) == []


def test_import_aware_frame(phone, tmp_path):
    pytest.importorskip("pandas")
    frame = phone.import_aware(aware_file(tmp_path / "screen.csv", [("2026-11-23T08:00:00+00:00", 3),
                                                                     ("2026-11-23T08:10:00+00:00", 2)]))
    assert frame.shape == (1, 12) and frame["screen_time"].tolist() == [600.0]
