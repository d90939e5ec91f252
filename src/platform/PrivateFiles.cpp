#include "tarnwell/platform/PrivateFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace tarnwell {
namespace {

constexpr mode_t kOthersBits = S_IRWXG | S_IRWXO;

void tightenPath(const std::filesystem::path& path) noexcept {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || S_ISLNK(status.st_mode)) return;
  if ((status.st_mode & kOthersBits) == 0 || status.st_uid != ::geteuid()) return;
  ::chmod(path.c_str(), status.st_mode & 07777 & ~kOthersBits);
}

std::error_code lastError() { return std::error_code(errno, std::generic_category()); }

}  // namespace

void makePrivateFolder(const std::filesystem::path& folder, std::error_code& error) {
  error.clear();
  if (folder.empty()) return;
  // The missing folders from the outermost in, so that each is made by us.
  std::vector<std::filesystem::path> missing;
  for (auto path = folder; !path.empty(); path = path.parent_path()) {
    std::error_code ignored;
    if (std::filesystem::exists(path, ignored) || path == path.parent_path()) break;
    missing.push_back(path);
  }
  for (auto each = missing.rbegin(); each != missing.rend(); ++each) {
    if (::mkdir(each->c_str(), 0700) != 0 && errno != EEXIST) {
      error = lastError();
      return;
    }
  }
  if (!std::filesystem::is_directory(folder, error)) {
    if (!error) error = std::make_error_code(std::errc::not_a_directory);
    return;
  }
  tightenPath(folder);
}

void makePrivateFolder(const std::filesystem::path& folder) {
  std::error_code error;
  makePrivateFolder(folder, error);
  if (error) throw std::filesystem::filesystem_error("cannot make the folder", folder, error);
}

void makePrivateFile(const std::filesystem::path& file) {
  if (file.has_parent_path()) makePrivateFolder(file.parent_path());
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd >= 0) {
    ::close(fd);
    return;
  }
  if (errno != EEXIST) throw std::filesystem::filesystem_error("cannot make the file", file, lastError());
  tightenPath(file);
}

void tightenFile(const std::filesystem::path& file) noexcept { tightenPath(file); }

void makePrivateDatabaseFile(const std::filesystem::path& file) {
  makePrivateFile(file);
  for (const char* suffix : {"-wal", "-shm", "-journal"}) tightenPath(file.string() + suffix);
}

}  // namespace tarnwell
