#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "Cli.h"
#include "tarnwell/automation/WidgetDatabase.h"
#include "tarnwell/extensions/Strings.h"
#include "tarnwell/modules/CloudService.h"
#include "tarnwell/modules/Database.h"
#include "tarnwell/platform/DateFormatting.h"
#include "tarnwell/platform/Sqlite.h"
#include "tarnwell/settings/Settings.h"

namespace tarnwell::cli {

namespace {

thread_local std::ostream* capturedOutput = nullptr;

}  // namespace

std::ostream& standardOutput() { return capturedOutput ? *capturedOutput : std::cout; }

CapturedOutput::CapturedOutput() : before_(capturedOutput) { capturedOutput = &stream_; }

CapturedOutput::~CapturedOutput() { capturedOutput = before_; }

std::string CapturedOutput::text() const { return stream_.str(); }

void Output::print(const nlohmann::ordered_json& value, const std::string& text) const {
  if (options_.json) {
    standardOutput() << value.dump() << '\n';
  } else {
    standardOutput() << text << '\n';
  }
}

std::string plainText(const nlohmann::ordered_json& value) {
  if (value.is_string()) return value.get<std::string>();
  return value.dump();
}

std::size_t columnsOf(const std::string& text) {
  std::size_t width = 0;
  for (const char* c = text.c_str(); *c != '\0'; c = g_utf8_next_char(c)) {
    const gunichar character = g_utf8_get_char(c);
    width += g_unichar_iszerowidth(character) ? 0 : g_unichar_iswide(character) ? 2 : 1;
  }
  return width;
}

std::string padded(const std::string& text, std::size_t columns) {
  const std::size_t width = columnsOf(text);
  return text + std::string(width < columns ? columns - width : 1, ' ');
}

std::string labeledRows(const std::vector<std::pair<std::string, std::string>>& rows, std::size_t least) {
  std::size_t width = least;
  for (const auto& row : rows) width = std::max(width, columnsOf(row.first) + 2);
  std::vector<std::string> lines;
  for (const auto& [label, value] : rows) lines.push_back(padded(label, width) + value);
  return joinLines(lines, "");
}

namespace {

// A template, not a pattern: the locale places the fields and the day period,
// and "H" or "h" holds the clock to the user's setting whatever the locale's own.
std::string clockTemplate(bool withSeconds) {
  return std::string(Settings::using24HoursFormat() ? "Hmm" : "hmm") + (withSeconds ? "ss" : "");
}

}  // namespace

std::string clockTime(const std::optional<Date>& date, bool withSeconds) {
  if (!date) return "-";
  return date_formatting::formatFromTemplate(*date, clockTemplate(withSeconds));
}

std::string dayAndClockTime(Date date, bool withYear) {
  return date_formatting::formatFromTemplate(date, (withYear ? "yMMMd" : "MMMd") + clockTemplate(true));
}

std::string calendarDay(Date date) { return getDateAndMonthAndYearString(date); }

std::string joinLines(const std::vector<std::string>& lines, const std::string& empty) {
  if (lines.empty()) return empty;
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  text.pop_back();
  return text;
}

namespace {

// Why `file` may not be replaced by a file of ours: a symbolic link, a
// folder, a device or a FIFO is the user's own thing, never ours to write
// over or through. Said in the user's language, for the refusal; empty
// when it is a regular file or nothing at all.
std::string unfitTarget(const std::filesystem::path& file, int& error) {
  struct stat status {};
  error = 0;
  if (::lstat(file.c_str(), &status) != 0) {
    if (errno != ENOENT) error = errno;
    return "";
  }
  if (S_ISREG(status.st_mode)) return "";
  if (S_ISLNK(status.st_mode)) return errorWords("is a symbolic link");
  if (S_ISDIR(status.st_mode)) return errorWords("is a folder");
  if (S_ISFIFO(status.st_mode)) return errorWords("is a FIFO");
  if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode)) return errorWords("is a device");
  return errorWords("is not a regular file");
}

}  // namespace

void writeFileAtomically(const std::string& option, const std::filesystem::path& file, std::string_view bytes) {
  const auto refused = [&](int error) {
    return refusal("%1$@: cannot write \"%2$@\": %3$@", {option, file.string(), std::strerror(error)});
  };
  const auto checkTarget = [&] {
    int error = 0;
    if (const auto unfit = unfitTarget(file, error); !unfit.empty()) {
      throw refusal("%1$@: \"%2$@\" %3$@; only a regular file or a new name is written",
                    {option, file.string(), unfit});
    }
    if (error != 0) throw refused(error);
  };
  if (file.filename().empty()) throw refused(EISDIR);
  checkTarget();
  // A name of its own in the same folder, so the rename cannot cross file
  // systems. Made with the user's umask, as any file a command of theirs writes.
  const std::filesystem::path folder = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
  std::filesystem::path temporary;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 100; ++attempt) {
    temporary = folder / ("." + file.filename().string() + "." + std::to_string(::getpid()) + "-" +
                          std::to_string(attempt) + ".partial");
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd < 0 && errno != EEXIST) throw refused(errno);
  }
  if (fd < 0) throw refused(EEXIST);
  int error = 0;
  for (std::size_t written = 0; written < bytes.size() && error == 0;) {
    const auto n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno != EINTR) error = errno;
    if (n > 0) written += static_cast<std::size_t>(n);
  }
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  // Once more just before the rename: the target may have changed while the bytes were written.
  try {
    if (error == 0) checkTarget();
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  if (error == 0 && ::rename(temporary.c_str(), file.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temporary.c_str());
    throw refused(error);
  }
}

std::size_t drainQueues() {
  Database::queue().safeSync([] {});
  return Environment::current().runPending();
}

namespace {

// Seconds of deadlines a run waits for before it exits: the 0.1-second
// debounce of announcements, not the day timer. Work the run still owes
// (a retry the cloud asked for) is waited for whatever its deadline.
constexpr double kSettleHorizon = 1.0;

bool launched = false;
bool cloudChanged = false;

void drainDueWork() {
  while (drainQueues() > 0) {
  }
}

}  // namespace

void launch() {
  // A Session runs many commands in one launch.
  if (launched) return;
  joinSignedInCloud([](const nlohmann::json& userInfo) { CloudService::handleRemoteNotification(userInfo); });
  // The app publishes for its widgets wherever the store announces a change.
  WidgetDatabase::connectToDatabase();
  try {
    Database::start();
  } catch (const Database::DatabaseError& error) {
    throw InputError(error.what());
  } catch (const sqlite::Error& error) {
    throw InputError(Database::describeFailure(error));
  }
  launched = true;
  drainDueWork();
  resumeLaunch();
  drainDueWork();
}

void settleOperations() {
  if (launched) Database::queue().safeSync([] {});
  Environment::current().finish(kSettleHorizon);
}

void finishRun() {
  settleOperations();
  if (launched) endLaunch();
  launched = false;
}

void signedInCloudChanged() { cloudChanged = true; }

bool takeSignedInCloudChanged() { return std::exchange(cloudChanged, false); }

std::optional<std::size_t> firstNonUtf8(const std::vector<std::string>& arguments) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (!g_utf8_validate(arguments[i].data(), static_cast<gssize>(arguments[i].size()), nullptr)) return i;
  }
  return std::nullopt;
}

std::string describeFailure(const std::exception& error) {
  if (const auto* store = dynamic_cast<const sqlite::Error*>(&error)) return Database::describeFailure(*store);
  return error.what();
}

Progress::Progress(std::string what) : what_(std::move(what)), terminal_(::isatty(STDERR_FILENO) != 0) {}

Progress::~Progress() {
  if (shown_) std::fputc('\n', stderr);
}

void Progress::update(std::size_t count, std::string_view unit, std::optional<double> share) {
  if (!terminal_) return;
  // A display, not a measurement: the wall clock only paces the redraws.
  const std::int64_t now =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count();
  if (shown_ && now - lastDrawn_ < 100) return;
  lastDrawn_ = now;
  std::string line = "\r" + what_ + ": ";
  if (share) line += std::to_string(static_cast<int>(std::clamp(*share, 0.0, 1.0) * 100)) + "%, ";
  line += std::to_string(count) + " " + std::string(unit) + "\x1b[K";
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
  shown_ = true;
}

void Progress::note(const std::string& line) {
  clear();
  std::fputs((line + "\n").c_str(), stderr);
}

void Progress::clear() {
  if (!shown_) return;
  std::fputs("\r\x1b[K", stderr);
  // The next update draws the line again at once.
  shown_ = false;
}

}  // namespace tarnwell::cli
