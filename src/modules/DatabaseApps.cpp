// The allowed apps.

#include "modules/DatabaseSupport.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/Log.h"
#include "tarnwell/store/Reads.h"

namespace tarnwell {

using namespace database_support;
using store::Store;
using store::UpdatePolicy;
using store::WriteTransaction;

std::vector<std::string> Database::getApps() {
  return store::selectIds(App::className, "trackId", store::liveRows().sorted("created ASC"));
}

std::optional<App> Database::getApp(const std::string& trackId) { return store::liveObject<App>(trackId); }

std::optional<std::string> Database::addApp(const AppStructure& data) {
  const App app(data.trackId(), data.trackName, data.artworkUrl100, data.primaryGenreNameInEnglish, data.urlScheme);
  Store::open().write([&app](WriteTransaction& t) { t.add(app, UpdatePolicy::all); });
  log.info("✍️ Add App: " + *app.trackId + " " + data.trackName, {.function = "addApp(data:)"});
  return app.trackId;
}

// In the frame of deletePickup, to the letter: it ends with a pickup change
// of the app's id, which finds no pickup and replaces today unchanged, with
// its announcement.
void Database::deleteApp(const std::string& trackId) {
  if (editLiveObject<App>(trackId, {{"isDeleted", true}}, "✍️ Delete App: " + trackId, "deleteApp(id:)")) {
    updateEventsOfToday({EventsOfInterval::EventsChangeType::pickup(trackId)});
  }
}

}  // namespace tarnwell
