// The C interface: each function checks what the caller handed in, turns it
// into a command line and runs it in the installation's Session, so a host
// in any language gets the checks and the JSON of `tarnwell --json`.

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Session.h"
#include "tarnwell/analytics/EventsOfDay.h"
#include "tarnwell/c/tarnwell.h"
#include "tarnwell/modules/Database.h"

namespace {

// The thread an installation's session lives on. The main queue belongs to
// the thread that made it, and a host calls from whichever thread it likes
// (a phone app's main thread, a worker, Python's): each call is handed here
// and waited for, so the session sees one thread and the caller sees a call.
class SessionThread {
 public:
  SessionThread() : thread_([this] { serve(); }) {}

  ~SessionThread() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    thread_.join();
  }

  SessionThread(const SessionThread&) = delete;
  SessionThread& operator=(const SessionThread&) = delete;

  // Runs `work` here; what it threw is thrown to the caller.
  void perform(const std::function<void()>& work) {
    std::exception_ptr failure;
    {
      std::lock_guard lock(mutex_);
      work_ = [&] {
        try {
          work();
        } catch (...) {
          failure = std::current_exception();
        }
      };
    }
    ready_.notify_all();
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [&] { return !work_; });
    if (failure) std::rethrow_exception(failure);
  }

 private:
  void serve() {
    std::unique_lock lock(mutex_);
    while (true) {
      ready_.wait(lock, [this] { return stopping_ || work_; });
      if (!work_) return;
      lock.unlock();
      work_();
      lock.lock();
      work_ = nullptr;
      finished_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_, finished_;
  std::function<void()> work_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace

struct tarnwell_installation {
  SessionThread thread;
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
std::string word(const nlohmann::json& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

// "--name=value": a value that starts with "-" stays a value.
std::string option(const std::string& name, const std::string& value) { return "--" + name + "=" + value; }

// The command `words` with its options, then its positional values after
// "--", so that no value a caller hands in can be taken for an option.
Arguments line(Arguments words, const Arguments& options, const Arguments& positionals) {
  words.insert(words.end(), options.begin(), options.end());
  words.push_back("--");
  words.insert(words.end(), positionals.begin(), positionals.end());
  return words;
}

// "focusId" as the option name "focus-id"; InputError for a key that names
// no option.
std::string optionName(const std::string& key, const char* object) {
  std::string name;
  for (const char c : key) {
    if (c >= 'A' && c <= 'Z') {
      name += '-';
      name += static_cast<char>(c - 'A' + 'a');
    } else if (c >= 'a' && c <= 'z') {
      name += c;
    } else {
      throw InputError(std::string(object) + " has the key \"" + key + "\", which names no option");
    }
  }
  if (name.empty() || name.front() == '-') {
    throw InputError(std::string(object) + " has the key \"" + key + "\", which names no option");
  }
  return name;
}

// The command `words` with the JSON object `object` as its options: true is
// a flag, false and null leave the option out, anything else is its value.
// The `positional` keys, each required, are its positional values in order.
Arguments fromObject(Arguments words, const nlohmann::json& object, const std::vector<std::string>& positional,
                     const char* name) {
  Arguments options, positionals;
  for (const auto& key : positional) {
    if (!object.contains(key) || object[key].is_null()) throw InputError(std::string(name) + " has no \"" + key + "\"");
    positionals.push_back(word(object[key]));
  }
  for (const auto& [key, value] : object.items()) {
    if (std::find(positional.begin(), positional.end(), key) != positional.end()) continue;
    const std::string option = optionName(key, name);
    if (value.is_null() || (value.is_boolean() && !value.get<bool>())) continue;
    options.push_back(value.is_boolean() ? "--" + option : ::option(option, word(value)));
  }
  return line(std::move(words), options, positionals);
}

// Runs `body` on the session of the open installation `installation`; the
// text it answers in `*out`.
tarnwell_status answer(tarnwell_installation* installation, char** out,
                       const std::function<std::string(Session&)>& body) {
  if (out) *out = nullptr;
  std::lock_guard lock(callLock());
  return guarded([&] {
    if (!installation || installation != openInstallation) throw InputError("the installation is NULL or closed");
    std::string answer;
    installation->thread.perform([&] { answer = body(*installation->session); });
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

// The options of a stretch of time, each end open when NULL.
Arguments range(const char* from, const char* to) {
  Arguments options;
  if (from) options.push_back(option("from", from));
  if (to) options.push_back(option("to", to));
  return options;
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
      if (key == "container")
        options.container = text;
      else if (key == "timeZone")
        options.timeZone = text;
      else if (key == "locale")
        options.locale = text;
      else if (key == "now")
        options.now = text;
      else
        throw InputError("unknown option \"" + key + "\" (container, timeZone, locale or now)");
    }
    auto installation = std::make_unique<tarnwell_installation>();
    installation->thread.perform([&] { installation->session = std::make_unique<Session>(std::move(options)); });
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
    closing->thread.perform([&] {
      closing->session->end();
      closing->session.reset();
    });
  });
}

tarnwell_status tarnwell_set_now(tarnwell_installation* installation, const char* now) {
  std::lock_guard lock(callLock());
  return guarded([&] {
    if (!installation || installation != openInstallation) throw InputError("the installation is NULL or closed");
    const std::string text = required(now, "now");
    installation->thread.perform([&] { installation->session->setNow(tarnwell::cli::parseInstant(text)); });
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
    return line({eventKind(kind), "add"}, {}, {required(start, "start"), required(end, "end")});
  });
}

tarnwell_status tarnwell_edit_event(tarnwell_installation* installation, const char* kind, const char* id,
                                    const char* start, const char* end) {
  return call(installation, nullptr, [&] {
    const std::string what = eventKind(kind);
    Arguments values{required(id, "id")};
    if (what == "pickup") {
      if (start) throw InputError("a pickup keeps its start: pass NULL");
    } else {
      values.push_back(required(start, "start"));
    }
    values.push_back(required(end, "end"));
    requireRecord(what, id);
    return line({what, "edit"}, {}, values);
  });
}

tarnwell_status tarnwell_delete_event(tarnwell_installation* installation, const char* kind, const char* id) {
  return call(installation, nullptr, [&] {
    const std::string what = eventKind(kind);
    if (what != "pickup") throw InputError(what + " spans are merged as they come and cannot be deleted");
    requireRecord(what, required(id, "id"));
    return line({what, "delete"}, {}, {id});
  });
}

tarnwell_status tarnwell_list_events(tarnwell_installation* installation, const char* kind, const char* from,
                                     const char* to, char** out) {
  return call(installation, out, [&] { return line({eventKind(kind), "list"}, range(from, to), {}); });
}

tarnwell_status tarnwell_import_file(tarnwell_installation* installation, const char* path, const char* format,
                                     char** out) {
  return call(installation, out, [&] {
    return line({"import"}, {option("format", format ? format : "tarnwell")}, {required(path, "path")});
  });
}

tarnwell_status tarnwell_day(tarnwell_installation* installation, const char* date, char** out) {
  return call(installation, out, [&] { return line({"day"}, {}, date ? Arguments{date} : Arguments{}); });
}

tarnwell_status tarnwell_days(tarnwell_installation* installation, const char* first, const char* last, char** out) {
  return answer(installation, out, [&](Session&) {
    const std::string firstText = required(first, "first"), lastText = required(last, "last");
    const tarnwell::Date from = tarnwell::cli::parseInstant(firstText).startOfDay();
    const tarnwell::Date to = tarnwell::cli::parseInstant(lastText).startOfDay();
    if (to < from) throw InputError("last: \"" + lastText + "\" is before first");
    // Days of 23 to 25 hours: the span's seconds bound the count closely
    // enough to refuse before any day is read.
    constexpr double kMostDays = 3660;
    if (to.timeIntervalSince(from) > (kMostDays - 1) * 86400 + 3600) {
      throw InputError("at most 3660 days are read at once");
    }
    std::string days = "[";
    for (tarnwell::Date day = from; day <= to; day = day.addingDay(1)) {
      if (day != from) days += ',';
      // A read: the day as `day --json` gives it, without a command line
      // built, parsed and settled for each of thousands of days.
      days += tarnwell::cli::dayJSON(tarnwell::EventsOfDay(day, std::nullopt)).dump();
    }
    return days + "]";
  });
}

tarnwell_status tarnwell_summary(tarnwell_installation* installation, const char* from, int count, char** out) {
  return call(installation, out, [&] {
    return line({"summary"}, {option("from", required(from, "from")), option("count", std::to_string(count))}, {});
  });
}

tarnwell_status tarnwell_chart(tarnwell_installation* installation, const char* metric, const char* range,
                               const char* date, char** out) {
  return call(installation, out, [&] {
    Arguments options{option("range", required(range, "range"))};
    if (date) options.push_back(option("date", date));
    return line({"chart"}, options, {required(metric, "metric")});
  });
}

tarnwell_status tarnwell_streaks(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return line({"streaks"}, {}, {}); });
}

tarnwell_status tarnwell_list_tags(tarnwell_installation* installation, int archived, char** out) {
  return call(installation, out, [&] {
    return line({"tag", "list"}, archived ? Arguments{"--archived"} : Arguments{}, {});
  });
}

tarnwell_status tarnwell_add_tag(tarnwell_installation* installation, const char* tag_json, char** out) {
  return call(installation, out, [&] {
    return fromObject({"tag", "add"}, parseJSON(tag_json, "tag", true), {"title"}, "tag");
  });
}

tarnwell_status tarnwell_edit_tag(tarnwell_installation* installation, const char* id, const char* tag_json,
                                  char** out) {
  return call(installation, out, [&] {
    auto json = parseJSON(tag_json, "tag", true);
    // A flag when adding, a value when editing: false turns it off.
    if (json.contains("mindful") && json["mindful"].is_boolean()) json["mindful"] = json["mindful"].dump();
    requireRecord("tag", required(id, "id"));
    json["id"] = id;
    return fromObject({"tag", "edit"}, json, {"id"}, "tag");
  });
}

tarnwell_status tarnwell_delete_tag(tarnwell_installation* installation, const char* id, const char* migrate_to) {
  return call(installation, nullptr, [&] {
    requireRecord("tag", required(id, "id"));
    return line({"tag", "delete"}, migrate_to ? Arguments{option("migrate-to", migrate_to)} : Arguments{}, {id});
  });
}

tarnwell_status tarnwell_add_focus(tarnwell_installation* installation, const char* focus_json, char** out) {
  return call(installation, out, [&] {
    return fromObject({"focus", "add"}, parseJSON(focus_json, "focus", true), {"start", "end"}, "focus");
  });
}

tarnwell_status tarnwell_list_focuses(tarnwell_installation* installation, const char* from, const char* to,
                                      char** out) {
  return call(installation, out, [&] { return line({"focus", "list"}, range(from, to), {}); });
}

tarnwell_status tarnwell_delete_focus(tarnwell_installation* installation, const char* id) {
  return call(installation, nullptr, [&] {
    requireRecord("focus", required(id, "id"));
    return line({"focus", "delete"}, {}, {id});
  });
}

tarnwell_status tarnwell_settings(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return line({"settings", "list"}, {}, {}); });
}

tarnwell_status tarnwell_set_setting(tarnwell_installation* installation, const char* name, const char* value,
                                     char** out) {
  return call(installation, out, [&] {
    return line({"settings", "set"}, {}, {required(name, "name"), required(value, "value")});
  });
}

tarnwell_status tarnwell_set_sleep_source(tarnwell_installation* installation, const char* bundle, const char* name) {
  return call(installation, nullptr, [&] {
    const nlohmann::json source = bundle
                                      ? nlohmann::json{{"bundleIdentifier", bundle}, {"name", required(name, "name")}}
                                      : nlohmann::json(nullptr);
    return line({"settings", "set"}, {}, {"defaultSleepDataSource", source.dump()});
  });
}

tarnwell_status tarnwell_cloud_sign_in(tarnwell_installation* installation, const char* cloud, char** out) {
  return call(installation, out, [&] { return line({"cloud", "sign-in"}, {}, {required(cloud, "cloud")}); });
}

tarnwell_status tarnwell_cloud_sign_out(tarnwell_installation* installation) {
  return call(installation, nullptr, [] { return line({"cloud", "sign-out"}, {}, {}); });
}

tarnwell_status tarnwell_sync_pull(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return line({"sync", "pull"}, {}, {}); });
}

tarnwell_status tarnwell_sync_push(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return line({"sync", "push"}, {}, {}); });
}

tarnwell_status tarnwell_sync_status(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return line({"sync", "status"}, {}, {}); });
}

tarnwell_status tarnwell_widget_summaries(tarnwell_installation* installation, char** out) {
  return call(installation, out, [] { return line({"widgets", "show"}, {}, {}); });
}

tarnwell_status tarnwell_build_link(tarnwell_installation* installation, const char* link_json, char** out) {
  return call(installation, out,
              [&] { return fromObject({"link"}, parseJSON(link_json, "link", true), {"case"}, "link"); });
}

tarnwell_status tarnwell_read_link(tarnwell_installation* installation, const char* url, char** out) {
  return call(installation, out, [&] { return line({"link"}, {}, {"parse", required(url, "url")}); });
}

tarnwell_status tarnwell_handle_intent(tarnwell_installation* installation, const char* name,
                                       const char* parameters_json, char** out) {
  return call(installation, out, [&] {
    Arguments options;
    if (parameters_json) {
      const auto parameters = parseJSON(parameters_json, "parameters", true);
      for (const auto& [key, value] : parameters.items()) options.push_back(option("param", key + "=" + word(value)));
    }
    return line({"intent", "handle"}, options, {required(name, "name")});
  });
}

}  // extern "C"
