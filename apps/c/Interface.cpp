// The C interface: each function checks what the caller handed in, turns it
// into a command line and runs it in the installation's Session, so a host
// in any language gets the checks and the JSON of `tarnwell --json`.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Session.h"
#include "tarnwell/c/tarnwell.h"
#include "tarnwell/modules/Database.h"

struct tarnwell_installation {
  std::unique_ptr<tarnwell::cli::Session> session;
};

namespace {

using tarnwell::cli::InputError;
using tarnwell::cli::Session;
using Arguments = std::vector<std::string>;

// The record an id names is not there.
class NotFound : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Another installation is open in this process.
class Busy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One process, one open installation; every call holds the lock.
std::mutex& callLock() {
  static std::mutex lock;
  return lock;
}
tarnwell_installation* openInstallation = nullptr;

thread_local std::string lastError;

tarnwell_status fail(tarnwell_status status, std::string message) {
  lastError = std::move(message);
  return status;
}

// Runs `body` with every failure turned into a status: nothing thrown
// leaves this file.
template <class Body>
tarnwell_status guarded(Body body) {
  try {
    body();
    lastError.clear();
    return TARNWELL_OK;
  } catch (const InputError& error) {
    return fail(TARNWELL_INVALID_ARGUMENT, error.what());
  } catch (const NotFound& error) {
    return fail(TARNWELL_NOT_FOUND, error.what());
  } catch (const Busy& error) {
    return fail(TARNWELL_BUSY, error.what());
  } catch (const std::bad_alloc&) {
    return fail(TARNWELL_FAILED, "out of memory");
  } catch (const std::exception& error) {
    return fail(TARNWELL_FAILED, tarnwell::cli::describeFailure(error));
  } catch (...) {
    return fail(TARNWELL_FAILED, "an unknown failure");
  }
}

std::string required(const char* text, const char* name) {
  if (!text) throw InputError(std::string(name) + " is NULL");
  return text;
}

nlohmann::json parseJSON(const char* text, const char* name, bool object) {
  const auto parsed = nlohmann::json::parse(required(text, name), nullptr, false);
  if (parsed.is_discarded()) throw InputError(std::string(name) + " is not JSON");
  if (object && !parsed.is_object()) throw InputError(std::string(name) + " is not a JSON object");
  return parsed;
}

// A JSON value as a command line's word: text as it is, other values as JSON.
std::string word(const nlohmann::json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

// "focusId" as the option "--focus-id".
std::string optionName(const std::string& key) {
  std::string name = "--";
  for (const char c : key) {
    if (c >= 'A' && c <= 'Z') {
      name += '-';
      name += static_cast<char>(c - 'A' + 'a');
    } else {
      name += c;
    }
  }
  return name;
}

// The object's keys as options after `arguments`: true is a flag, false
// and null leave the option out, anything else is its value. `positional`
// keys, in that order, go first, unnamed; each of them is required.
Arguments withOptions(Arguments arguments, const nlohmann::json& object, const std::vector<std::string>& positional,
                      const char* name) {
  for (const auto& key : positional) {
    if (!object.contains(key) || object[key].is_null()) throw InputError(std::string(name) + " has no \"" + key + "\"");
    arguments.push_back(word(object[key]));
  }
  for (const auto& [key, value] : object.items()) {
    if (std::find(positional.begin(), positional.end(), key) != positional.end()) continue;
    if (value.is_null() || (value.is_boolean() && !value.get<bool>())) continue;
    arguments.push_back(optionName(key));
    if (!value.is_boolean()) arguments.push_back(word(value));
  }
  return arguments;
}

// Runs `body` on the session of the open installation `installation`; the
// text it answers in `*out`.
tarnwell_status answer(tarnwell_installation* installation, char** out,
                       const std::function<std::string(Session&)>& body) {
  if (out) *out = nullptr;
  std::lock_guard lock(callLock());
  return guarded([&] {
    if (!installation || installation != openInstallation) throw InputError("the installation is NULL or closed");
    const std::string answer = body(*installation->session);
    if (!out) return;
    char* copy = static_cast<char*>(std::malloc(answer.size() + 1));
    if (!copy) throw std::bad_alloc();
    std::memcpy(copy, answer.c_str(), answer.size() + 1);
    *out = copy;
  });
}

// Runs the command line `arguments` gives.
tarnwell_status call(tarnwell_installation* installation, char** out, const std::function<Arguments()>& arguments) {
  return answer(installation, out, [&](Session& session) { return session.run(arguments()); });
}

std::string eventKind(const char* kind) {
  const std::string text = required(kind, "kind");
  if (text != "pickup" && text != "walk" && text != "alive") {
    throw InputError("kind \"" + text + "\" is not pickup, walk or alive");
  }
  return text;
}

// An edit or deletion of an id nothing has would change nothing and say so
// nowhere; a host is told.
void requireRecord(const std::string& kind, const std::string& id) {
  using tarnwell::Database;
  bool found = false;
  if (kind == "pickup") found = Database::getPickup(id).has_value();
  if (kind == "walk") found = Database::getWalk(id).has_value();
  if (kind == "alive") found = Database::getAlive(id).has_value();
  if (kind == "focus") found = Database::getFocus(id).has_value();
  if (kind == "tag") found = Database::getTag(id).has_value();
  if (!found) throw NotFound("no " + kind + " has the id " + id);
}

Arguments range(Arguments arguments, const char* from, const char* to) {
  if (from) arguments.insert(arguments.end(), {"--from", from});
  if (to) arguments.insert(arguments.end(), {"--to", to});
  return arguments;
}

}  // namespace

extern "C" {

const char* tarnwell_version(void) { return TARNWELL_VERSION; }

const char* tarnwell_last_error(void) { return lastError.c_str(); }

void tarnwell_free(char* text) { std::free(text); }

tarnwell_status tarnwell_open(const char* options_json, tarnwell_installation** out) {
  std::lock_guard lock(callLock());
  return guarded([&] {
    if (!out) throw InputError("out is NULL");
    *out = nullptr;
    if (openInstallation) throw Busy("another installation is open in this process (tarnwell_close it first)");
    tarnwell::cli::GlobalOptions options;
    const auto json = options_json ? parseJSON(options_json, "options", true) : nlohmann::json::object();
    for (const auto& [key, value] : json.items()) {
      if (!value.is_string()) throw InputError("option \"" + key + "\" is not text");
      const std::string text = value.get<std::string>();
      if (tarnwell::cli::firstNonUtf8({text})) throw InputError("option \"" + key + "\" is not valid UTF-8");
      if (key == "container") options.container = text;
      else if (key == "timeZone") options.timeZone = text;
      else if (key == "locale") options.locale = text;
      else if (key == "now") options.now = text;
      else throw InputError("unknown option \"" + key + "\" (container, timeZone, locale or now)");
    }
    auto installation = std::make_unique<tarnwell_installation>();
    installation->session = std::make_unique<Session>(std::move(options));
    openInstallation = installation.release();
    *out = openInstallation;
  });
}

tarnwell_status tarnwell_close(tarnwell_installation* installation) {
  std::lock_guard lock(callLock());
  if (!installation) return TARNWELL_OK;
  return guarded([&] {
    if (installation != openInstallation) throw InputError("the installation is not open");
    openInstallation = nullptr;
    const std::unique_ptr<tarnwell_installation> closing(installation);
    // The session's destructor cannot report; its end is asked for here.
    auto session = std::move(closing->session);
    session.reset();
  });
}

tarnwell_status tarnwell_set_now(tarnwell_installation* installation, const char* now) {
  std::lock_guard lock(callLock());
  return guarded([&] {
    if (!installation || installation != openInstallation) throw InputError("the installation is NULL or closed");
    const std::string text = required(now, "now");
    const auto date = tarnwell::Date::parseISO8601(text, tarnwell::Region::current().timeZoneId());
    if (!date) throw InputError("now: \"" + text + "\" is not an ISO 8601 date or time");
    installation->session->setNow(tarnwell::cli::checkInstant(text, *date));
  });
}

tarnwell_status tarnwell_run(tarnwell_installation* installation, const char* arguments_json, char** out) {
  return call(installation, out, [&] {
    const auto json = parseJSON(arguments_json, "arguments", false);
    if (!json.is_array() || json.empty()) throw InputError("arguments is not a JSON array of words");
    Arguments arguments;
    for (const auto& each : json) {
      if (!each.is_string()) throw InputError("arguments is not a JSON array of words");
      arguments.push_back(each.get<std::string>());
    }
    return arguments;
  });
}

tarnwell_status tarnwell_add_event(tarnwell_installation* installation, const char* kind, const char* start,
                                   const char* end, char** out) {
  return call(installation, out, [&] {
    return Arguments{eventKind(kind), "add", required(start, "start"), required(end, "end")};
  });
}

tarnwell_status tarnwell_edit_event(tarnwell_installation* installation, const char* kind, const char* id,
                                    const char* start, const char* end) {
  return call(installation, nullptr, [&] {
    const std::string what = eventKind(kind);
    Arguments arguments{what, "edit", required(id, "id")};
    if (what == "pickup") {
      if (start) throw InputError("a pickup keeps its start: pass NULL");
    } else {
      arguments.push_back(required(start, "start"));
    }
    arguments.push_back(required(end, "end"));
    requireRecord(what, arguments[2]);
    return arguments;
  });
}

tarnwell_status tarnwell_delete_event(tarnwell_installation* installation, const char* kind, const char* id) {
  return call(installation, nullptr, [&] {
    const std::string what = eventKind(kind);
    if (what != "pickup") throw InputError(what + " spans are merged as they come and cannot be deleted");
    requireRecord(what, required(id, "id"));
    return Arguments{what, "delete", id};
  });
}

tarnwell_status tarnwell_list_events(tarnwell_installation* installation, const char* kind, const char* from,
                                     const char* to, char** out) {
  return call(installation, out, [&] { return range({eventKind(kind), "list"}, from, to); });
}

tarnwell_status tarnwell_day(tarnwell_installation* installation, const char* date, char** out) {
  return call(installation, out, [&] {
    Arguments arguments{"day"};
    if (date) arguments.push_back(date);
    return arguments;
  });
}

tarnwell_status tarnwell_days(tarnwell_installation* installation, const char* first, const char* last, char** out) {
  return answer(installation, out, [&](Session& session) {
    const std::string firstText = required(first, "first"), lastText = required(last, "last");
    const tarnwell::Date from = tarnwell::cli::parseInstant(firstText).startOfDay();
    const tarnwell::Date to = tarnwell::cli::parseInstant(lastText).startOfDay();
    if (to < from) throw InputError("last: \"" + lastText + "\" is before first");
    constexpr int kMostDays = 3660;
    std::string days = "[";
    int count = 0;
    for (tarnwell::Date day = from; day <= to; day = day.addingDay(1)) {
      if (++count > kMostDays) throw InputError("at most 3660 days are read at once");
      if (count > 1) days += ',';
      days += session.run({"day", day.iso8601()});
    }
    return days + "]";
  });
}

tarnwell_status tarnwell_summary(tarnwell_installation* installation, const char* from, int count, char** out) {
  return call(installation, out, [&] {
    return Arguments{"summary", "--from", required(from, "from"), "--count", std::to_string(count)};
  });
}

tarnwell_status tarnwell_chart(tarnwell_installation* installation, const char* metric, const char* range,
                               const char* date, char** out) {
  return call(installation, out, [&] {
    Arguments arguments{"chart", required(metric, "metric"), "--range", required(range, "range")};
    if (date) arguments.insert(arguments.end(), {"--date", date});
    return arguments;
  });
}

tarnwell_status tarnwell_streaks(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return Arguments{"streaks"}; });
}

tarnwell_status tarnwell_list_tags(tarnwell_installation* installation, int archived, char** out) {
  return call(installation, out, [&] {
    Arguments arguments{"tag", "list"};
    if (archived) arguments.push_back("--archived");
    return arguments;
  });
}

tarnwell_status tarnwell_add_tag(tarnwell_installation* installation, const char* tag_json, char** out) {
  return call(installation, out,
              [&] { return withOptions({"tag", "add"}, parseJSON(tag_json, "tag", true), {"title"}, "tag"); });
}

tarnwell_status tarnwell_edit_tag(tarnwell_installation* installation, const char* id, const char* tag_json,
                                  char** out) {
  return call(installation, out, [&] {
    auto json = parseJSON(tag_json, "tag", true);
    // A flag when adding, a value when editing: false turns it off.
    if (json.contains("mindful") && json["mindful"].is_boolean()) json["mindful"] = json["mindful"].dump();
    requireRecord("tag", required(id, "id"));
    return withOptions({"tag", "edit", id}, json, {}, "tag");
  });
}

tarnwell_status tarnwell_delete_tag(tarnwell_installation* installation, const char* id, const char* migrate_to) {
  return call(installation, nullptr, [&] {
    requireRecord("tag", required(id, "id"));
    Arguments arguments{"tag", "delete", id};
    if (migrate_to) arguments.insert(arguments.end(), {"--migrate-to", migrate_to});
    return arguments;
  });
}

tarnwell_status tarnwell_add_focus(tarnwell_installation* installation, const char* focus_json, char** out) {
  return call(installation, out, [&] {
    return withOptions({"focus", "add"}, parseJSON(focus_json, "focus", true), {"start", "end"}, "focus");
  });
}

tarnwell_status tarnwell_list_focuses(tarnwell_installation* installation, const char* from, const char* to,
                                      char** out) {
  return call(installation, out, [&] { return range({"focus", "list"}, from, to); });
}

tarnwell_status tarnwell_delete_focus(tarnwell_installation* installation, const char* id) {
  return call(installation, nullptr, [&] {
    requireRecord("focus", required(id, "id"));
    return Arguments{"focus", "delete", id};
  });
}

tarnwell_status tarnwell_settings(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return Arguments{"settings", "list"}; });
}

tarnwell_status tarnwell_set_setting(tarnwell_installation* installation, const char* name, const char* value,
                                     char** out) {
  return call(installation, out, [&] {
    return Arguments{"settings", "set", required(name, "name"), required(value, "value")};
  });
}

tarnwell_status tarnwell_set_sleep_source(tarnwell_installation* installation, const char* bundle, const char* name) {
  return call(installation, nullptr, [&] {
    const nlohmann::json source = bundle ? nlohmann::json{{"bundleIdentifier", bundle}, {"name", required(name, "name")}}
                                         : nlohmann::json(nullptr);
    return Arguments{"settings", "set", "defaultSleepDataSource", source.dump()};
  });
}

tarnwell_status tarnwell_cloud_sign_in(tarnwell_installation* installation, const char* cloud, char** out) {
  return call(installation, out, [&] { return Arguments{"cloud", "sign-in", required(cloud, "cloud")}; });
}

tarnwell_status tarnwell_cloud_sign_out(tarnwell_installation* installation) {
  return call(installation, nullptr, [] { return Arguments{"cloud", "sign-out"}; });
}

tarnwell_status tarnwell_sync_pull(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return Arguments{"sync", "pull"}; });
}

tarnwell_status tarnwell_sync_push(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return Arguments{"sync", "push"}; });
}

tarnwell_status tarnwell_sync_status(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return Arguments{"sync", "status"}; });
}

tarnwell_status tarnwell_widget_summaries(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return Arguments{"widgets", "show"}; });
}

tarnwell_status tarnwell_build_link(tarnwell_installation* installation, const char* link_json, char** out) {
  return call(installation, out,
              [&] { return withOptions({"link"}, parseJSON(link_json, "link", true), {"case"}, "link"); });
}

tarnwell_status tarnwell_read_link(tarnwell_installation* installation, const char* url, char** out) {
  return call(installation, out, [&] { return Arguments{"link", "parse", required(url, "url")}; });
}

tarnwell_status tarnwell_handle_intent(tarnwell_installation* installation, const char* name,
                                       const char* parameters_json, char** out) {
  return call(installation, out, [&] {
    Arguments arguments{"intent", "handle", required(name, "name")};
    if (parameters_json) {
      const auto parameters = parseJSON(parameters_json, "parameters", true);
      for (const auto& [key, value] : parameters.items()) {
        arguments.insert(arguments.end(), {"--param", key + "=" + word(value)});
      }
    }
    return arguments;
  });
}

tarnwell_status tarnwell_import_file(tarnwell_installation* installation, const char* path, const char* format,
                                     char** out) {
  return call(installation, out, [&] {
    return Arguments{"import", required(path, "path"), "--format", format ? std::string(format) : "tarnwell"};
  });
}

}  // extern "C"
