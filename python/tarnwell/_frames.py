"""Days as a pandas DataFrame, when pandas is there."""

import importlib


def pandas():
    """The pandas module, or None when it cannot be imported."""
    try:
        return importlib.import_module("pandas")
    except ImportError:
        return None


def days(pd, days, zone):
    """One row a day, indexed by its start in `zone`: durations in float
    seconds (NaN: none), instants aware, pickup counts nullable integers."""

    def seconds(values):
        return pd.array([None if each is None else float(each) for each in values], dtype="float64")

    def instants(values):
        # By way of UTC: the days of a zone do not all have the same offset.
        return pd.DatetimeIndex(pd.to_datetime(list(values), utc=True)).tz_convert(zone)

    def length(span):
        return None if span is None else span.duration

    return pd.DataFrame(
        {
            "screen_time": seconds(day.screen_time for day in days),
            "pickup_times": pd.array([day.pickup_times for day in days], dtype="Int64"),
            "longest_pickup": seconds(day.longest_pickup for day in days),
            "checking_every": seconds(day.checking_every for day in days),
            "walking_life": seconds(day.walking_life for day in days),
            "indoor_life": seconds(day.indoor_life for day in days),
            "best_break": seconds(length(day.best_break) for day in days),
            "continuously_usage": seconds(length(day.continuously_usage) for day in days),
            "first_pickup": instants(day.first_pickup_date for day in days).array,
            "last_pickup": instants(day.last_pickup_date for day in days).array,
            "sleep_time": seconds(day.sleep_time for day in days),
            "asleep_at": instants(day.asleep_at for day in days).array,
        },
        index=instants(day.start_of_day for day in days).rename("start"),
    )
