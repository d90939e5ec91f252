/* day: the metrics of one day of an installation, through the C interface.
 *
 *   day [--tz ZONE] [--now INSTANT] CONTAINER [DATE]
 *
 * Opens the installation whose folder is CONTAINER and prints the day of
 * DATE (ISO 8601; default: today) as one line of JSON, the line
 * `tarnwell --container CONTAINER --json day DATE` prints. --tz is the IANA
 * zone the day is cut in (default: the system's) and --now pins the clock,
 * as the command line's options of those names do. On failure it prints the
 * library's message and exits with 1.
 *
 * Build it against an installed prefix:
 *   cc -std=c11 day.c $(pkg-config --cflags --libs tarnwell)
 */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarnwell/c/tarnwell.h>

static int usage(void) {
  fputs("usage: day [--tz ZONE] [--now INSTANT] CONTAINER [DATE]\n", stderr);
  return 2;
}

/* The library's message names what it refused. */
static int failed(void) {
  fprintf(stderr, "day: %s\n", tarnwell_last_error());
  return 1;
}

/* Appends `"key":"value"` to the JSON object in `out`, escaped: a folder's
 * name may hold quotes, backslashes or control characters. */
static void append_member(char *out, const char *key, const char *value) {
  static const char hex[] = "0123456789abcdef";
  char *end = out + strlen(out);
  if (end[-1] != '{') *end++ = ',';
  end += sprintf(end, "\"%s\":\"", key);
  for (const unsigned char *c = (const unsigned char *)value; *c; ++c) {
    if (*c == '"' || *c == '\\') {
      *end++ = '\\';
      *end++ = (char)*c;
    } else if (*c < 0x20) {
      end += sprintf(end, "\\u00%c%c", hex[*c >> 4], hex[*c & 15]);
    } else {
      *end++ = (char)*c;
    }
  }
  *end++ = '"';
  *end = '\0';
}

int main(int argc, char **argv) {
  const char *zone = NULL, *now = NULL, *container = NULL, *date = NULL;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--tz") == 0 && i + 1 < argc) {
      zone = argv[++i];
    } else if (strcmp(argv[i], "--now") == 0 && i + 1 < argc) {
      now = argv[++i];
    } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
      return usage();
    } else if (!container) {
      container = argv[i];
    } else if (!date) {
      date = argv[i];
    } else {
      return usage();
    }
  }
  if (!container) return usage();

  /* Each character escapes to at most six. */
  const size_t room = 64 + 6 * (strlen(container) + (zone ? strlen(zone) : 0) + (now ? strlen(now) : 0));
  char *options = malloc(room);
  if (!options) {
    fputs("day: out of memory\n", stderr);
    return 1;
  }
  strcpy(options, "{");
  append_member(options, "container", container);
  if (zone) append_member(options, "timeZone", zone);
  if (now) append_member(options, "now", now);
  strcat(options, "}");

  tarnwell_installation *installation = NULL;
  const tarnwell_status opened = tarnwell_open(options, &installation);
  free(options);
  if (opened != TARNWELL_OK) return failed();

  char *day = NULL;
  int status = 0;
  if (tarnwell_day(installation, date, &day) == TARNWELL_OK) {
    puts(day);
    tarnwell_free(day);
  } else {
    status = failed();
  }
  /* Closing finishes what the launch set going; its failure is worth
   * telling even after the day was printed. */
  if (tarnwell_close(installation) != TARNWELL_OK) status = failed();
  return status;
}
