#include "tarnwell/platform/Keychain.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tarnwell/platform/Base64.h"
#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/PrivateFiles.h"
#include "tarnwell/platform/Uuid.h"

namespace tarnwell {
namespace {

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

// An exclusive advisory lock on "<file>.lock" for the life of the object.
class FileLock {
 public:
  explicit FileLock(const std::filesystem::path& file) {
    const std::string path = file.string() + ".lock";
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) throw KeychainError(errnoText("cannot open " + path));
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        ::close(fd_);
        throw KeychainError(errnoText("cannot lock " + path));
      }
    }
  }
  ~FileLock() { ::close(fd_); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  int fd_ = -1;
};

nlohmann::json readItems(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    if (!std::filesystem::exists(file)) return nlohmann::json::object();
    throw KeychainError("cannot read " + file.string());
  }
  std::stringstream text;
  text << in.rdbuf();
  auto items = nlohmann::json::parse(text.str(), nullptr, false);
  if (!items.is_object()) throw KeychainError("damaged keychain file " + file.string());
  return items;
}

void writeItems(const std::filesystem::path& file, const nlohmann::json& items) {
  const std::filesystem::path temporary = file.string() + "." + makeUUIDString() + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) throw KeychainError(errnoText("cannot create " + temporary.string()));
  const std::string text = items.dump(2);
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ::close(fd);
      ::unlink(temporary.c_str());
      throw KeychainError(errnoText("cannot write " + temporary.string()));
    }
    written += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(temporary.c_str(), file.c_str()) != 0) {
    ::unlink(temporary.c_str());
    throw KeychainError(errnoText("cannot replace " + file.string()));
  }
}

}  // namespace

std::filesystem::path FileKeychainStore::fileFor(std::string_view service) const {
  return folder_ / (std::string(service) + ".keychain");
}

std::optional<Data> FileKeychainStore::get(std::string_view service, std::string_view key) {
  const auto file = fileFor(service);
  if (!std::filesystem::exists(file)) return std::nullopt;
  const auto items = readItems(file);
  const auto found = items.find(key);
  if (found == items.end() || !found->is_string()) return std::nullopt;
  auto bytes = base64::decode(found->get<std::string>());
  if (!bytes) throw KeychainError("damaged item \"" + std::string(key) + "\" in " + file.string());
  return bytes;
}

void FileKeychainStore::set(std::string_view service, std::string_view key, const Data& value) {
  update(service, key, value);
}

void FileKeychainStore::remove(std::string_view service, std::string_view key) { update(service, key, std::nullopt); }

void FileKeychainStore::update(std::string_view service, std::string_view key, const std::optional<Data>& value) {
  std::error_code error;
  makePrivateFolder(folder_, error);
  if (error) throw KeychainError("cannot create " + folder_.string() + ": " + error.message());
  const auto file = fileFor(service);
  FileLock lock(file);
  auto items = readItems(file);
  if (value) {
    items[std::string(key)] = base64::encode(*value);
  } else {
    if (!items.contains(key)) return;
    items.erase(std::string(key));
  }
  writeItems(file, items);
}

std::string_view Keychain::rawValue(Key key) {
  switch (key) {
    case Key::deviceId:
      return "deviceId";
  }
  return {};
}

std::optional<std::string> Keychain::get(Key key) {
  const auto data = getData(key);
  if (!data) return std::nullopt;
  return std::string(data->begin(), data->end());
}

void Keychain::set(Key key, const std::optional<std::string>& value) {
  if (value) {
    setData(key, Data(value->begin(), value->end()));
  } else {
    setData(key, std::nullopt);
  }
}

std::optional<Data> Keychain::getData(Key key) {
  try {
    return Environment::current().keychain().get(kService, rawValue(key));
  } catch (const KeychainError&) {
    return std::nullopt;
  }
}

void Keychain::setData(Key key, const std::optional<Data>& value) {
  try {
    auto& store = Environment::current().keychain();
    if (value) {
      store.set(kService, rawValue(key), *value);
    } else {
      store.remove(kService, rawValue(key));
    }
  } catch (const KeychainError&) {
    // Dropped: the identifier is then simply asked for again at the next launch.
  }
}

}  // namespace tarnwell
