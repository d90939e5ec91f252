// WidgetCenter and ControlCenter: the phone's home screen and control centre
// as the library reaches them.
//
// The library asks them to reload what a kind of widget or control shows,
// and asks which widget configurations the user has placed. On this machine
// both keep their state in one small SQLite file of the app-group container
// ("Library/WidgetCenter.sqlite"), so that the host's separate processes (the
// app, and the commands that play the widgets) see one home screen: the
// widgets placed, and the reload requests made and not yet taken.

#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/platform/Date.h"

namespace tarnwell {

namespace sqlite {
class Connection;
}

// The size and place of a widget, with the platform's raw values.
enum class WidgetFamily : int {
  systemSmall = 0,
  systemMedium = 1,
  systemLarge = 2,
  systemExtraLarge = 3,
  accessoryCorner = 4,
  accessoryCircular = 5,
  accessoryRectangular = 6,
  accessoryInline = 7,
  // A family newer than the library's words for families.
  systemExtraLargePortrait = 8,
};

// The family of a raw value; nothing when it names none.
std::optional<WidgetFamily> widgetFamilyFromRawValue(int rawValue);

// One widget the user placed.
struct WidgetInfo {
  std::string kind;
  WidgetFamily family = WidgetFamily::systemSmall;
  // The class name of its configuration intent; absent for a widget that
  // cannot be configured.
  std::optional<std::string> configuration;

  friend bool operator==(const WidgetInfo&, const WidgetInfo&) = default;
};

// A redraw the home screen owes, until the system takes it. Requests for
// the same widget kind or control that come before it is taken are one
// redraw, as on the phone: the first request's date, and how many asked.
struct ReloadRequest {
  enum class Centre { widgets, controls };
  Centre centre = Centre::widgets;
  // Absent: every widget.
  std::optional<std::string> kind;
  Date date;
  std::int64_t count = 1;

  friend bool operator==(const ReloadRequest&, const ReloadRequest&) = default;
};

// The state both centres share: the placed widgets and the requests.
class HomeScreen {
 public:
  // Opens or creates the file (folders included). Throws sqlite::Error or
  // std::filesystem::filesystem_error when it cannot.
  explicit HomeScreen(const std::filesystem::path& file);
  ~HomeScreen();

  // The installed Environment's, in its app-group container.
  static HomeScreen& shared();

  // What the user does: place a widget (a second one of the same kind,
  // family and configuration is a second widget), remove every widget of a
  // configuration or kind; how many went.
  void place(const WidgetInfo& widget);
  std::size_t remove(std::string_view configurationOrKind);
  std::vector<WidgetInfo> placed() const;

  // Asks for a redraw of `kind` (every widget when absent) at `date`.
  void request(ReloadRequest::Centre centre, const std::optional<std::string>& kind, Date date);
  // The redraws owed, oldest first.
  std::vector<ReloadRequest> requests() const;
  // What the system does when it redraws: takes every redraw owed.
  std::vector<ReloadRequest> takeRequests();

 private:
  std::vector<ReloadRequest> readRequests() const;

  mutable std::mutex mutex_;
  std::unique_ptr<sqlite::Connection> connection_;
};

class WidgetCenter {
 public:
  static WidgetCenter& shared();

  void reloadTimelines(std::string_view kind);
  void reloadAllTimelines();
  // Answers later, on a background queue of the Environment: the widgets
  // placed, or the error that kept them from being read.
  void getCurrentConfigurations(std::function<void(std::vector<WidgetInfo>, std::exception_ptr)> completion);
};

class ControlCenter {
 public:
  static ControlCenter& shared();

  void reloadControls(std::string_view kind);
};

}  // namespace tarnwell
