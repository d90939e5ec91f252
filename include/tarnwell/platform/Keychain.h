// Keychain: small secrets that outlive a reinstall of the app.
//
// KeychainStore is the port: items by service and key, as bytes. The file
// store keeps one file per service, mode 0600, in a folder outside the app's
// own folders, so deleting an installation leaves it in place. `Keychain` is
// the facade the system uses, over the service "org.vostra.tarnwell" of the
// installed Environment's store.

#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tarnwell/platform/UserDefaults.h"

namespace tarnwell {

class KeychainError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KeychainStore {
 public:
  virtual ~KeychainStore() = default;
  // Each throws KeychainError when the store cannot be read or written.
  virtual std::optional<Data> get(std::string_view service, std::string_view key) = 0;
  virtual void set(std::string_view service, std::string_view key, const Data& value) = 0;
  virtual void remove(std::string_view service, std::string_view key) = 0;
};

// Items of a service live in "<folder>/<service>.keychain", a JSON object of
// base64 values. Writes replace the file atomically under an advisory lock,
// so several processes may share the folder.
class FileKeychainStore final : public KeychainStore {
 public:
  explicit FileKeychainStore(std::filesystem::path folder) : folder_(std::move(folder)) {}

  std::optional<Data> get(std::string_view service, std::string_view key) override;
  void set(std::string_view service, std::string_view key, const Data& value) override;
  void remove(std::string_view service, std::string_view key) override;

  const std::filesystem::path& folder() const { return folder_; }
  std::filesystem::path fileFor(std::string_view service) const;

 private:
  void update(std::string_view service, std::string_view key, const std::optional<Data>& value);

  std::filesystem::path folder_;
};

class Keychain {
 public:
  Keychain() = delete;

  static constexpr std::string_view kService = "org.vostra.tarnwell";

  enum class Key { deviceId };
  static std::string_view rawValue(Key key);

  // Errors of the store read as absence; errors of writing are dropped.
  static std::optional<std::string> get(Key key);
  // An absent value removes the item.
  static void set(Key key, const std::optional<std::string>& value);
  static std::optional<Data> getData(Key key);
  static void setData(Key key, const std::optional<Data>& value);
};

}  // namespace tarnwell
