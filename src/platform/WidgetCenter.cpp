#include "tarnwell/platform/WidgetCenter.h"

#include "tarnwell/platform/BusyTimeout.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/platform/Sqlite.h"

namespace tarnwell {
namespace {

struct SharedHomeScreen {
  explicit SharedHomeScreen(Environment& environment)
      : screen(environment.appGroupContainer() / "Library" / "WidgetCenter.sqlite"),
        answers(environment.makeQueue("org.vostra.tarnwell.widgetcenter")) {}
  HomeScreen screen;
  // Where the answers of getCurrentConfigurations come from.
  std::shared_ptr<DispatchQueue> answers;
};

SharedHomeScreen& shared() { return Environment::current().component<SharedHomeScreen>(); }

void record(ReloadRequest::Centre centre, std::optional<std::string> kind) {
  HomeScreen::shared().request(centre, kind, Date::now());
}

// A request for every widget is kept under the empty kind, so that the
// key stays unique (SQLite's NULLs never collide).
constexpr std::string_view kEveryWidget = "";

}  // namespace

std::optional<WidgetFamily> widgetFamilyFromRawValue(int rawValue) {
  if (rawValue < 0 || rawValue > static_cast<int>(WidgetFamily::systemExtraLargePortrait)) return std::nullopt;
  return static_cast<WidgetFamily>(rawValue);
}

HomeScreen::HomeScreen(const std::filesystem::path& file) {
  makePrivateDatabaseFile(file);
  connection_ = std::make_unique<sqlite::Connection>(file);
  connection_->setBusyTimeout(storeBusyTimeout());
  connection_->execute("PRAGMA journal_mode = WAL");
  connection_->execute(
      "CREATE TABLE IF NOT EXISTS widgets (kind TEXT NOT NULL, family INTEGER NOT NULL, configuration TEXT);"
      "CREATE TABLE IF NOT EXISTS reloads (centre INTEGER NOT NULL, kind TEXT NOT NULL, date REAL NOT NULL,"
      " count INTEGER NOT NULL, PRIMARY KEY (centre, kind))");
}

HomeScreen::~HomeScreen() = default;

HomeScreen& HomeScreen::shared() { return tarnwell::shared().screen; }

void HomeScreen::place(const WidgetInfo& widget) {
  std::lock_guard lock(mutex_);
  auto& insert = connection_->cached("INSERT INTO widgets (kind, family, configuration) VALUES (?1, ?2, ?3)");
  insert.bind(1, widget.kind).bind(2, static_cast<int>(widget.family)).bind(3, widget.configuration);
  insert.execute();
}

std::size_t HomeScreen::remove(std::string_view configurationOrKind) {
  std::lock_guard lock(mutex_);
  auto& erase = connection_->cached("DELETE FROM widgets WHERE configuration = ?1 OR kind = ?1");
  erase.bind(1, configurationOrKind);
  erase.execute();
  return static_cast<std::size_t>(connection_->changes());
}

std::vector<WidgetInfo> HomeScreen::placed() const {
  std::lock_guard lock(mutex_);
  std::vector<WidgetInfo> widgets;
  auto& select = connection_->cached("SELECT kind, family, configuration FROM widgets ORDER BY rowid");
  for (sqlite::Cursor rows(select); rows.next();) {
    WidgetInfo widget{rows->text(0),
                      widgetFamilyFromRawValue(static_cast<int>(rows->int64(1))).value_or(WidgetFamily::systemSmall),
                      rows->isNull(2) ? std::nullopt : std::optional(rows->text(2))};
    widgets.push_back(std::move(widget));
  }
  return widgets;
}

void HomeScreen::request(ReloadRequest::Centre centre, const std::optional<std::string>& kind, Date date) {
  std::lock_guard lock(mutex_);
  auto& upsert = connection_->cached(
      "INSERT INTO reloads (centre, kind, date, count) VALUES (?1, ?2, ?3, 1)"
      " ON CONFLICT (centre, kind) DO UPDATE SET count = count + 1");
  upsert.bind(1, static_cast<int>(centre))
      .bind(2, kind.value_or(std::string(kEveryWidget)))
      .bind(3, date.timeIntervalSinceReferenceDate());
  upsert.execute();
}

std::vector<ReloadRequest> HomeScreen::requests() const {
  std::lock_guard lock(mutex_);
  return readRequests();
}

std::vector<ReloadRequest> HomeScreen::readRequests() const {
  std::vector<ReloadRequest> requests;
  auto& select = connection_->cached("SELECT centre, kind, date, count FROM reloads ORDER BY date, rowid");
  for (sqlite::Cursor rows(select); rows.next();) {
    ReloadRequest request{static_cast<ReloadRequest::Centre>(rows->int64(0)), rows->text(1),
                          Date::fromTimeIntervalSinceReferenceDate(rows->real(2)), rows->int64(3)};
    if (request.kind == kEveryWidget) request.kind.reset();
    requests.push_back(std::move(request));
  }
  return requests;
}

std::vector<ReloadRequest> HomeScreen::takeRequests() {
  std::lock_guard lock(mutex_);
  // Read and cleared in one transaction: a request another process makes
  // meanwhile waits for the next redraw, whole.
  sqlite::Transaction transaction(*connection_);
  auto taken = readRequests();
  connection_->execute("DELETE FROM reloads");
  transaction.commit();
  return taken;
}

WidgetCenter& WidgetCenter::shared() {
  static WidgetCenter center;
  return center;
}

void WidgetCenter::reloadTimelines(std::string_view kind) { record(ReloadRequest::Centre::widgets, std::string(kind)); }

void WidgetCenter::reloadAllTimelines() { record(ReloadRequest::Centre::widgets, std::nullopt); }

void WidgetCenter::getCurrentConfigurations(
    std::function<void(std::vector<WidgetInfo>, std::exception_ptr)> completion) {
  tarnwell::shared().answers->async([completion = std::move(completion)] {
    std::vector<WidgetInfo> widgets;
    std::exception_ptr error;
    try {
      widgets = HomeScreen::shared().placed();
    } catch (...) {
      error = std::current_exception();
    }
    completion(std::move(widgets), error);
  });
}

ControlCenter& ControlCenter::shared() {
  static ControlCenter center;
  return center;
}

void ControlCenter::reloadControls(std::string_view kind) {
  record(ReloadRequest::Centre::controls, std::string(kind));
}

}  // namespace tarnwell
