/* The C interface as a host in C sees it. One case per process (a process
 * holds one open installation): c_tests CASE. */

#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tarnwell/c/tarnwell.h"

static int failures = 0;

#define CHECK(condition)                                                 \
  do {                                                                   \
    if (!(condition)) {                                                  \
      fprintf(stderr, "%s:%d: CHECK(%s) failed\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                        \
    }                                                                    \
  } while (0)

/* A call's status, with the message shown when it is not the one expected. */
#define EXPECT_STATUS(expected, call)                                                                      \
  do {                                                                                                     \
    tarnwell_status got_ = (call);                                                                         \
    if (got_ != (expected)) {                                                                              \
      fprintf(stderr, "%s:%d: %s gave %d (%s), not %d\n", __FILE__, __LINE__, #call, (int)got_,           \
              tarnwell_last_error(), (int)(expected));                                                     \
      ++failures;                                                                                          \
    }                                                                                                      \
  } while (0)

static char folder[256];

/* A new installation folder (and keychain home) under a fresh temporary folder. */
static const char *make_folder(void) {
  strcpy(folder, "/tmp/tarnwell-c-XXXXXX");
  if (!mkdtemp(folder)) abort();
  setenv("XDG_DATA_HOME", folder, 1);
  return folder;
}

static tarnwell_installation *open_pinned(const char *container, const char *name) {
  char options[512];
  snprintf(options, sizeof options,
           "{\"container\": \"%s/%s\", \"timeZone\": \"Europe/Berlin\", \"locale\": \"en_US\", "
           "\"now\": \"2026-11-25T20:00:00Z\"}",
           container, name);
  tarnwell_installation *installation = NULL;
  EXPECT_STATUS(TARNWELL_OK, tarnwell_open(options, &installation));
  if (!installation) exit(1);
  return installation;
}

static int contains(const char *text, const char *part) { return text && strstr(text, part) != NULL; }

/* The value of "id" in a record's JSON, into `id`. */
static void read_id(const char *json, char id[64]) {
  const char *start = json ? strstr(json, "\"id\":\"") : NULL;
  id[0] = '\0';
  if (!start) return;
  start += 6;
  const char *end = strchr(start, '"');
  if (!end || end - start >= 64) return;
  memcpy(id, start, (size_t)(end - start));
  id[end - start] = '\0';
}

static void stored_and_read_again(void) {
  const char *base = make_folder();
  tarnwell_installation *t = open_pinned(base, "phone");
  char *out = NULL;
  EXPECT_STATUS(TARNWELL_OK, tarnwell_add_event(t, "pickup", "2026-11-25T09:00:00Z", "2026-11-25T09:10:00Z", &out));
  char id[64];
  read_id(out, id);
  CHECK(strlen(id) == 36);
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_edit_event(t, "pickup", id, NULL, "2026-11-25T09:20:00Z"));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_add_event(t, "walk", "2026-11-25T11:00:00Z", "2026-11-25T11:30:00Z", NULL));

  /* A second installation while this one is open is refused, this one stays. */
  tarnwell_installation *second = (tarnwell_installation *)1;
  EXPECT_STATUS(TARNWELL_BUSY, tarnwell_open(NULL, &second));
  CHECK(second == NULL);
  CHECK(contains(tarnwell_last_error(), "another installation"));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(t));

  t = open_pinned(base, "phone");
  EXPECT_STATUS(TARNWELL_OK, tarnwell_day(t, "2026-11-25", &out));
  CHECK(contains(out, "\"startOfDay\":\"2026-11-25T00:00:00+01:00\""));
  CHECK(contains(out, "\"screenTime\":1200.0"));
  CHECK(contains(out, "\"pickupTimes\":1,"));
  CHECK(contains(out, "\"walks\":[{\"start\":\"2026-11-25T12:00:00+01:00\",\"end\":\"2026-11-25T12:30:00+01:00\"}]"));
  CHECK(strcmp(tarnwell_last_error(), "") == 0);
  tarnwell_free(out);

  /* Three days, the middle one the day above; the clock moves on with set_now. */
  EXPECT_STATUS(TARNWELL_OK, tarnwell_days(t, "2026-11-24", "2026-11-26", &out));
  CHECK(out && out[0] == '[' && contains(out, "\"startOfDay\":\"2026-11-26T00:00:00+01:00\""));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_set_now(t, "2026-11-26T12:00:00Z"));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_day(t, NULL, &out));
  CHECK(contains(out, "\"startOfDay\":\"2026-11-26T00:00:00+01:00\""));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_delete_event(t, "pickup", id));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_summary(t, "2026-11-25", 1, &out));
  CHECK(contains(out, "\"pickupTimes\":{\"total\":0"));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(t));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(NULL));
}

/* Every refusal leaves the installation as it was: its events, tags and day
 * read the same before and after. */
static void bad_input_changes_nothing(void) {
  const char *base = make_folder();
  tarnwell_installation *t = open_pinned(base, "phone");
  char *out = NULL;
  EXPECT_STATUS(TARNWELL_OK, tarnwell_add_event(t, "pickup", "2026-11-25T09:00:00Z", "2026-11-25T09:10:00Z", NULL));
  char *events = NULL, *tags = NULL, *day = NULL;
  EXPECT_STATUS(TARNWELL_OK, tarnwell_list_events(t, "pickup", NULL, NULL, &events));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_list_tags(t, 0, &tags));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_day(t, "2026-11-25", &day));

  /* Null handles and pointers. */
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_day(NULL, NULL, &out));
  CHECK(out == NULL && contains(tarnwell_last_error(), "NULL"));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_open(NULL, NULL));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_set_now(NULL, "2026-11-25"));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_event(t, NULL, "2026-11-25T09:00:00Z", NULL, &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_event(t, "pickup", "2026-11-25T09:00:00Z", NULL, &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, NULL, &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_build_link(t, NULL, &out));

  /* Text that is not UTF-8, wherever it comes in. */
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, "{\"title\": \"Re\xff\"}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_focus(t, "{\"start\": \"\xc3\", \"end\": \"x\"}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_set_setting(t, "defaultPickupGoal", "6\xc3\x28", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_read_link(t, "tarnwell://\xfe", &out));
  CHECK(contains(tarnwell_last_error(), "UTF-8"));

  /* Malformed JSON, JSON of the wrong shape, unknown keys and words. */
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, "{\"title\": ", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, "[\"Read\"]", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, "{\"emoji\": \"x\"}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, "{\"title\": \"Read\", \"goal\": \"often\"}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_handle_intent(t, "StartToFocusIntent", "{,}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_run(t, "[\"day\", 3]", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_run(t, "[\"no-such-command\"]", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_run(t, "[\"day\", \"--help\"]", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, "{\"title\": \"Read\", \"\": \"x\"}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_tag(t, "{\"title\": \"Read\", \"json\": true}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_chart(t, "happiness", "week", NULL, &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_chart(t, "screenTime", "decade", NULL, &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_event(t, "nap", "2026-11-25T09:00:00Z", "2026-11-25T10:00:00Z", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_set_now(t, "yesterday"));

  /* Bad times: not a date, an end before its start, beyond what is taken. */
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_day(t, "2026-13-40", &out));
  CHECK(contains(tarnwell_last_error(), "2026-13-40"));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_add_event(t, "pickup", "2026-11-25T10:00:00Z", "2026-11-25T09:00:00Z", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_days(t, "2026-11-25", "2026-11-24", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_days(t, "2000-01-01", "2026-11-24", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_summary(t, "2026-11-25", -1, &out));

  /* Unknown ids, and what only pickups can do. */
  EXPECT_STATUS(TARNWELL_NOT_FOUND, tarnwell_edit_event(t, "pickup", "no-such-id", NULL, "2026-11-25T09:30:00Z"));
  CHECK(contains(tarnwell_last_error(), "no-such-id"));
  EXPECT_STATUS(TARNWELL_NOT_FOUND, tarnwell_edit_event(t, "walk", "no-such-id", "2026-11-25T09:00:00Z", "2026-11-25T09:30:00Z"));
  EXPECT_STATUS(TARNWELL_NOT_FOUND, tarnwell_delete_event(t, "pickup", "no-such-id"));
  EXPECT_STATUS(TARNWELL_NOT_FOUND, tarnwell_delete_focus(t, "no-such-id"));
  EXPECT_STATUS(TARNWELL_NOT_FOUND, tarnwell_delete_tag(t, "no-such-id", NULL));
  EXPECT_STATUS(TARNWELL_NOT_FOUND, tarnwell_edit_tag(t, "no-such-id", "{\"title\": \"x\"}", &out));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_delete_event(t, "walk", "any"));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_edit_event(t, "pickup", "any", "2026-11-25T09:00:00Z", "2026-11-25T09:30:00Z"));
  CHECK(out == NULL);

  char *after = NULL;
  EXPECT_STATUS(TARNWELL_OK, tarnwell_list_events(t, "pickup", NULL, NULL, &after));
  CHECK(after && events && strcmp(after, events) == 0);
  tarnwell_free(after);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_list_tags(t, 0, &after));
  CHECK(after && tags && strcmp(after, tags) == 0);
  tarnwell_free(after);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_day(t, "2026-11-25", &after));
  CHECK(after && day && strcmp(after, day) == 0);
  tarnwell_free(after);
  tarnwell_free(events);
  tarnwell_free(tags);
  tarnwell_free(day);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(t));

  /* Options: unknown, of the wrong type, a zone ICU does not know, a container under a file. */
  tarnwell_installation *none = NULL;
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_open("{\"zone\": \"UTC\"}", &none));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_open("{\"timeZone\": 1}", &none));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_open("{\"timeZone\": \"Mars/Olympus\"}", &none));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_open("{\"container\": \"/dev/null/phone\"}", &none));
  CHECK(none == NULL && contains(tarnwell_last_error(), "/dev/null"));
  /* A path whose folders only fail once they are made. */
  char options[600], file[300];
  snprintf(file, sizeof file, "%s/file", base);
  FILE *plain = fopen(file, "w");
  if (plain) fclose(plain);
  snprintf(options, sizeof options, "{\"container\": \"%s/missing/../file/phone\"}", base);
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_open(options, &none));
  CHECK(none == NULL && contains(tarnwell_last_error(), "cannot be made"));
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_close(t)); /* already closed */
}

/* What a phone app does besides events: tags, focus, settings, the sleep
 * source, charts, widgets, links and intents. */
static void what_an_app_does(void) {
  const char *base = make_folder();
  tarnwell_installation *t = open_pinned(base, "phone");
  char *out = NULL;
  char tag[64];
  EXPECT_STATUS(TARNWELL_OK, tarnwell_add_tag(t, "{\"title\": \"Read\", \"goal\": \">=3600\", \"mindful\": true}", &out));
  CHECK(contains(out, "\"focusGoal\":{\"moreThanOrEqualTo\":3600.0}") && contains(out, "\"syncToMindfulness\":true"));
  read_id(out, tag);
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_edit_tag(t, tag, "{\"goal\": \"none\", \"mindful\": false, \"title\": \"--help\"}", &out));
  CHECK(contains(out, "\"focusGoal\":null") && contains(out, "\"syncToMindfulness\":false") && contains(out, "\"title\":\"--help\""));
  tarnwell_free(out);

  char focus_json[256], focus[64];
  snprintf(focus_json, sizeof focus_json,
           "{\"start\": \"2026-11-25T08:00:00Z\", \"end\": \"2026-11-25T08:25:00Z\", \"tag\": \"%s\", \"mode\": \"strict\"}", tag);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_add_focus(t, focus_json, &out));
  read_id(out, focus);
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_list_focuses(t, "2026-11-25", NULL, &out));
  CHECK(contains(out, focus));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_chart(t, "focus", "week", "2026-11-25", &out));
  CHECK(contains(out, "\"dataType\":\"focus\"") && contains(out, "\"range\":\"week\""));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_delete_focus(t, focus));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_delete_tag(t, tag, NULL));

  EXPECT_STATUS(TARNWELL_OK, tarnwell_set_setting(t, "defaultPickupGoal", "40", &out));
  tarnwell_free(out);
  /* Only an application that has written sleep can be the source. */
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_set_sleep_source(t, "com.example.sleep", "Sleep"));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_run(t,
                                          "[\"health\", \"add-sleep\", \"2026-11-24T23:00:00Z\", \"2026-11-25T06:00:00Z\", "
                                          "\"--source-bundle\", \"com.example.sleep\", \"--source-name\", \"Sleep\"]",
                                          &out));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_set_sleep_source(t, "com.example.sleep", "Sleep"));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_settings(t, &out));
  CHECK(contains(out, "{\"name\":\"defaultPickupGoal\",\"value\":40}") && contains(out, "\"bundleIdentifier\":\"com.example.sleep\""));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_set_sleep_source(t, NULL, NULL));

  EXPECT_STATUS(TARNWELL_OK, tarnwell_add_event(t, "pickup", "2026-11-25T19:00:00Z", "2026-11-25T19:05:00Z", NULL));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_widget_summaries(t, &out));
  CHECK(contains(out, "\"screenTimeToday\":{") && contains(out, "\"pickupTimes\":1"));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_streaks(t, &out));
  CHECK(contains(out, "\"screenTimeCombo\""));
  tarnwell_free(out);

  EXPECT_STATUS(TARNWELL_OK,
                tarnwell_build_link(t, "{\"case\": \"viewScreenTime\", \"type\": \"pickups\", \"range\": \"month\", "
                                       "\"widgetName\": \"ScreenTimeWidget\", \"widgetFamily\": \"small\", \"standby\": true}", &out));
  CHECK(contains(out, "\"url\":\"tarnwell://"));
  char url[512] = "";
  const char *start = out ? strstr(out, "tarnwell://") : NULL;
  if (start) {
    const size_t length = strcspn(start, "\"");
    if (length < sizeof url) memcpy(url, start, length), url[length] = '\0';
  }
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_read_link(t, url, &out));
  CHECK(contains(out, "\"type\":\"pickups\"") && contains(out, "\"readable\":true"));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_handle_intent(t, "StartToFocusIntent", NULL, &out));
  CHECK(contains(out, "\"code\":"));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(t));
}

/* Two devices of one user: what one pushed, the other pulls, and nothing
 * waits unsent. */
static void two_devices_share_a_cloud(void) {
  const char *base = make_folder();
  char cloud[300];
  snprintf(cloud, sizeof cloud, "%s/cloud", base);
  tarnwell_installation *phone = open_pinned(base, "phone");
  char *out = NULL;
  EXPECT_STATUS(TARNWELL_OK, tarnwell_cloud_sign_in(phone, cloud, &out));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_add_event(phone, "pickup", "2026-11-25T09:00:00Z", "2026-11-25T09:10:00Z", &out));
  char pickup[64];
  read_id(out, pickup);
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_sync_status(phone, &out));
  CHECK(contains(out, "\"unsent\":{\"count\":0"));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(phone));

  tarnwell_installation *tablet = open_pinned(base, "tablet");
  EXPECT_STATUS(TARNWELL_INVALID_ARGUMENT, tarnwell_sync_pull(tablet, &out));
  CHECK(out == NULL && contains(tarnwell_last_error(), "not signed in"));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_cloud_sign_in(tablet, cloud, &out));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_sync_pull(tablet, &out));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_run(tablet, "[\"sync\", \"records\", \"--type\", \"Pickup\"]", &out));
  CHECK(contains(out, pickup));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_cloud_sign_out(tablet));
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(tablet));
}

/* Any thread may call: calls from two at once are each run whole. */
struct writer {
  tarnwell_installation *installation;
  int hour;
  int failed;
};

static void *write_pickups(void *argument) {
  struct writer *w = argument;
  for (int minute = 0; minute < 20; ++minute) {
    char start[32], end[32];
    snprintf(start, sizeof start, "2026-11-25T%02d:%02d:00Z", w->hour, minute * 2);
    snprintf(end, sizeof end, "2026-11-25T%02d:%02d:30Z", w->hour, minute * 2);
    char *out = NULL;
    if (tarnwell_add_event(w->installation, "pickup", start, end, NULL) != TARNWELL_OK) ++w->failed;
    if (tarnwell_day(w->installation, "2026-11-25", &out) != TARNWELL_OK) ++w->failed;
    tarnwell_free(out);
  }
  return NULL;
}

static void threads_take_turns(void) {
  const char *base = make_folder();
  tarnwell_installation *t = open_pinned(base, "phone");
  struct writer writers[2] = {{t, 8, 0}, {t, 10, 0}};
  pthread_t threads[2];
  for (int i = 0; i < 2; ++i) pthread_create(&threads[i], NULL, write_pickups, &writers[i]);
  for (int i = 0; i < 2; ++i) pthread_join(threads[i], NULL);
  CHECK(writers[0].failed == 0 && writers[1].failed == 0);
  char *out = NULL;
  EXPECT_STATUS(TARNWELL_OK, tarnwell_day(t, "2026-11-25", &out));
  CHECK(contains(out, "\"pickupTimes\":40,") && contains(out, "\"screenTime\":1200.0"));
  tarnwell_free(out);
  EXPECT_STATUS(TARNWELL_OK, tarnwell_close(t));
}

int main(int argc, char **argv) {
  static const struct {
    const char *name;
    void (*run)(void);
  } cases[] = {
      {"StoredAndReadAgain", stored_and_read_again},
      {"BadInputChangesNothing", bad_input_changes_nothing},
      {"WhatAnAppDoes", what_an_app_does},
      {"TwoDevicesShareACloud", two_devices_share_a_cloud},
      {"ThreadsTakeTurns", threads_take_turns},
  };
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
    if (argc == 2 && strcmp(argv[1], cases[i].name) == 0) {
      CHECK(strcmp(tarnwell_version(), "0.1.0") == 0);
      cases[i].run();
      char command[300];
      snprintf(command, sizeof command, "rm -rf '%s'", folder);
      if (folder[0] && system(command) != 0) ++failures;
      return failures == 0 ? 0 : 1;
    }
  }
  fprintf(stderr, "usage: c_tests CASE\n");
  return 2;
}
