/* The C interface of TarnwellKit, for hosts in other languages: Swift
 * imports it as it stands, Kotlin reaches it through JNI, Python through
 * ctypes.
 *
 * An installation is one app's data: its store, settings, health store and
 * cloud sign-in, in one folder (the container). Opening it launches the app
 * there; every call is then one command of the app, with the same checks,
 * the same work and the same answer as the command line `tarnwell --json`
 * gives for it. Compound values come back as that JSON text.
 *
 * Status and messages. Every function returns a tarnwell_status. On
 * anything but TARNWELL_OK, tarnwell_last_error() gives one line a person
 * can read; nothing the installation stored before the call has changed
 * unless the message says what was done. No C++ exception crosses this
 * interface, and no input makes it abort: a null pointer, text that is not
 * UTF-8, malformed JSON, a bad date or an unknown id is
 * TARNWELL_INVALID_ARGUMENT or TARNWELL_NOT_FOUND.
 *
 * Memory. Text handed in is read during the call only. Text handed out
 * through a `char **out` is the caller's: release it with tarnwell_free().
 * On failure `*out` is set to NULL. Text returned as `const char *` is the
 * library's and stays valid as that function's comment says.
 *
 * Threads. Any thread may call; calls take turns, each running to its end
 * (the work it sets going included) on the installation's own thread
 * before the next begins. A process
 * holds one open installation at a time: the library's platform (clock,
 * queues, folders) is one per process, as an app's is. Opening a second
 * while one is open is TARNWELL_BUSY.
 *
 * Stability. Within a major version (0.x: a minor version) a function keeps
 * its name, parameters and meaning, the statuses keep their values, and the
 * JSON keep their keys: new keys and functions may appear, none go.
 *
 * Times are ISO 8601 text ("2026-11-25T20:00:00Z"; a date alone means its
 * start in the installation's zone). Durations are seconds. */

#ifndef TARNWELL_C_TARNWELL_H_
#define TARNWELL_C_TARNWELL_H_

#ifdef __cplusplus
extern "C" {
#endif

typedef enum tarnwell_status {
  TARNWELL_OK = 0,
  /* Bad input: a null pointer, text that is not UTF-8, malformed JSON, a
   * date, metric or option the library does not take. */
  TARNWELL_INVALID_ARGUMENT = 1,
  /* No record (pickup, walk, alive span, tag, focus session) has the id. */
  TARNWELL_NOT_FOUND = 2,
  /* Another installation is open in this process. */
  TARNWELL_BUSY = 3,
  /* The store, the health store or the cloud failed (a full disk, a store
   * another program holds, a server that does not answer). */
  TARNWELL_FAILED = 4
} tarnwell_status;

typedef struct tarnwell_installation tarnwell_installation;

/* "0.1.0": the library's version. Static text. */
const char* tarnwell_version(void);

/* The message of the last call on this thread that did not return
 * TARNWELL_OK, "" after one that did. Valid until this thread's next call. */
const char* tarnwell_last_error(void);

/* Releases text the library handed out. NULL is ignored. */
void tarnwell_free(char* text);

/* Opens the installation that `options_json` describes, launching the app
 * there, and sets `*out` to it. Every key is optional:
 *   {"container": "/path/of/the/installation",   (default: the user's own)
 *    "timeZone": "Europe/Berlin",                (default: the system's)
 *    "locale": "de_DE",                          (default: the system's)
 *    "now": "2026-11-25T20:00:00Z"}              (pins the clock; see
 *                                                 tarnwell_set_now)
 * NULL is {}. */
tarnwell_status tarnwell_open(const char* options_json, tarnwell_installation** out);

/* Lets what the calls set going finish (announcements, widget summaries,
 * cloud sends), ends the launch and releases `installation`. NULL is
 * ignored. The handle is gone even when this fails. Close before the
 * process exits: an installation left open is not closed for the host. */
tarnwell_status tarnwell_close(tarnwell_installation* installation);

/* Moves the pinned clock: the host's own clock, injected. Only for an
 * installation opened with "now". */
tarnwell_status tarnwell_set_now(tarnwell_installation* installation, const char* now);

/* Any command of the command line, as a JSON array of its words without
 * the program's name (["day", "2026-11-25"]); `*out` is what it printed. */
tarnwell_status tarnwell_run(tarnwell_installation* installation, const char* arguments_json, char** out);

/* Events. `kind` is "pickup", "walk" or "alive" (the monitor ran).
 * Adding gives the record as JSON; editing moves its ends (a pickup keeps
 * its start: pass NULL); only pickups can be deleted. Listing gives the
 * records with a start or end between `from` and `to`, either NULL for no
 * bound. */
tarnwell_status tarnwell_add_event(tarnwell_installation* installation, const char* kind, const char* start,
                                   const char* end, char** out);
tarnwell_status tarnwell_edit_event(tarnwell_installation* installation, const char* kind, const char* id,
                                    const char* start, const char* end);
tarnwell_status tarnwell_delete_event(tarnwell_installation* installation, const char* kind, const char* id);
tarnwell_status tarnwell_list_events(tarnwell_installation* installation, const char* kind, const char* from,
                                     const char* to, char** out);

/* Reads the events of a CSV file into the installation: `format` "tarnwell"
 * (kind,start,end rows; NULL means it) or "aware" (the AWARE framework's
 * screen events). Gives what was read, as `tarnwell import --json`: the
 * counts, and "span", from the first event's start to the last one's end. */
tarnwell_status tarnwell_import_file(tarnwell_installation* installation, const char* path, const char* format,
                                     char** out);

/* Every metric of the day of `date` (NULL: today), its night and its hours,
 * as `tarnwell day --json`. */
tarnwell_status tarnwell_day(tarnwell_installation* installation, const char* date, char** out);

/* The days from the day of `first` to the day of `last`, both included
 * (at most 3660), as a JSON array of what tarnwell_day gives. */
tarnwell_status tarnwell_days(tarnwell_installation* installation, const char* first, const char* last, char** out);

/* Totals and averages of `count` days from the day of `from`, as
 * `tarnwell summary --json`. */
tarnwell_status tarnwell_summary(tarnwell_installation* installation, const char* from, int count, char** out);

/* The chart model of `metric` ("screenTime", "pickups", ..., "focus",
 * "failedTimes" or "tag:ID") for the "day", "week", "month" or "year" of
 * `date` (NULL: now), as `tarnwell chart --json`. */
tarnwell_status tarnwell_chart(tarnwell_installation* installation, const char* metric, const char* range,
                               const char* date, char** out);

/* Days in a row the screen-time, pickup and sleep goals were kept. */
tarnwell_status tarnwell_streaks(tarnwell_installation* installation, char** out);

/* Focus tags and sessions. A tag's fields, all optional but the title on
 * adding: {"title", "emoji", "color": "#rrggbb", "goal": ">=SECONDS" or
 * "<=SECONDS" (editing: "none" clears it), "type": "pomodoro:SECONDS",
 * "countdown:SECONDS" or "addTime", "mindful": true}. A session's:
 * {"start", "end" (required), "tag", "goal", "progress", "type", "mode":
 * "easy" or "strict", "id"}. Deleting a tag moves its sessions to the tag
 * `migrate_to`, or deletes them when it is NULL. */
tarnwell_status tarnwell_list_tags(tarnwell_installation* installation, int archived, char** out);
tarnwell_status tarnwell_add_tag(tarnwell_installation* installation, const char* tag_json, char** out);
tarnwell_status tarnwell_edit_tag(tarnwell_installation* installation, const char* id, const char* tag_json,
                                  char** out);
tarnwell_status tarnwell_delete_tag(tarnwell_installation* installation, const char* id, const char* migrate_to);
tarnwell_status tarnwell_add_focus(tarnwell_installation* installation, const char* focus_json, char** out);
tarnwell_status tarnwell_list_focuses(tarnwell_installation* installation, const char* from, const char* to,
                                      char** out);
tarnwell_status tarnwell_delete_focus(tarnwell_installation* installation, const char* id);

/* Settings by property name ("defaultScreenTimeGoal", ...). The value is
 * text as the command line takes it ("18000", "true", "null" clears an
 * optional one). */
tarnwell_status tarnwell_settings(tarnwell_installation* installation, char** out);
tarnwell_status tarnwell_set_setting(tarnwell_installation* installation, const char* name, const char* value,
                                     char** out);

/* Where the night comes from: the application `bundle` that writes sleep
 * to the health store, shown as `name`; NULL `bundle` is the inference from
 * phone use. */
tarnwell_status tarnwell_set_sleep_source(tarnwell_installation* installation, const char* bundle, const char* name);

/* The cloud: a folder the user's installations share, or a server
 * "postgresql://USER@HOST:PORT/DB" (its password from PGPASSFILE). The
 * sign-in takes effect at once. Pull fetches what the other devices wrote;
 * push sends every record; status gives the account, the sync state and
 * the changes not yet sent. */
tarnwell_status tarnwell_cloud_sign_in(tarnwell_installation* installation, const char* cloud, char** out);
tarnwell_status tarnwell_cloud_sign_out(tarnwell_installation* installation);
tarnwell_status tarnwell_sync_pull(tarnwell_installation* installation, char** out);
tarnwell_status tarnwell_sync_push(tarnwell_installation* installation, char** out);
tarnwell_status tarnwell_sync_status(tarnwell_installation* installation, char** out);

/* What the home screen's widgets read: every published summary. */
tarnwell_status tarnwell_widget_summaries(tarnwell_installation* installation, char** out);

/* Deep links. Building takes {"case": "viewScreenTime", ...} with the
 * options of `tarnwell link` by their names ("type", "range", "tag",
 * "focusId", "widgetFamily", "standby": true, ...) and gives {"url",
 * "action"}; reading gives what the app takes from the link. */
tarnwell_status tarnwell_build_link(tarnwell_installation* installation, const char* link_json, char** out);
tarnwell_status tarnwell_read_link(tarnwell_installation* installation, const char* url, char** out);

/* Handles the shortcut intent `name` ("StartToFocusIntent", ...) with
 * `parameters_json`, an object of its parameters (NULL: none), and gives
 * the handler's answer. */
tarnwell_status tarnwell_handle_intent(tarnwell_installation* installation, const char* name,
                                       const char* parameters_json, char** out);

#ifdef __cplusplus
}
#endif

#endif /* TARNWELL_C_TARNWELL_H_ */
