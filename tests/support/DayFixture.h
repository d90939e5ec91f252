// A day's worth of helpers: a started store in a named zone, and events
// written at local wall times.

#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/TestEnvironment.h"
#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/records/Focus.h"
#include "tarnwell/settings/Settings.h"
#include "tarnwell/store/Store.h"

namespace tarnwell::testing {

class DayFixture : public ::testing::Test {
 protected:
  explicit DayFixture(std::string zone = "Europe/Berlin")
      : env({.timeZone = std::move(zone), .now = *Date::parseISO8601("2026-11-25T12:00:00Z")}) {
    Database::start();
  }

  // "07:30" on the test's day, "-23:50" on the day before, "+00:10" on the day after.
  Date at(std::string time) const {
    std::string day = "2026-11-22";
    if (time.front() == '-') {
      day = "2026-11-21";
      time.erase(0, 1);
    } else if (time.front() == '+') {
      day = "2026-11-23";
      time.erase(0, 1);
    }
    if (time.size() == 5) time += ":00";
    return *Date::parseISO8601(day + "T" + time);
  }
  Date day() const { return at("12:00"); }

  std::string pickup(const std::string& start, const std::string& end) {
    return Database::addPickup(at(start), at(end));
  }
  std::string pickupOf(const std::string& device, const std::string& start, const std::string& end) {
    Pickup record(at(start), at(end));
    record.deviceId = device;
    store::Store::open().write([&](auto& t) { t.add(record); });
    return *record.id;
  }
  std::string walk(const std::string& start, const std::string& end) { return Database::addWalk(at(start), at(end)); }
  std::string alive(const std::string& start, const std::string& end) { return Database::addAlive(at(start), at(end)); }
  std::string focus(const std::string& start, const std::string& end, double goal = 0) {
    const Focus record(std::nullopt, at(start), at(end), std::nullopt, goal, at(end) - at(start), std::nullopt,
                       std::nullopt, std::nullopt);
    store::Store::open().write([&](auto& t) { t.add(record); });
    return *record.id;
  }

  EventsOfDay today() const { return EventsOfDay(day(), std::nullopt); }

  TestEnvironment env;
};

}  // namespace tarnwell::testing
