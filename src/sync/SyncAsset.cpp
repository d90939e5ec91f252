#include "tarnwell/sync/SyncAsset.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <system_error>

#include "tarnwell/platform/Environment.h"
#include "tarnwell/platform/FatalError.h"
#include "tarnwell/platform/PrivateFiles.h"

namespace tarnwell::sync {
namespace {

namespace fs = std::filesystem;

std::string uniqueFileName(std::string_view objectID, std::string_view propName) {
  return std::string(objectID) + "_" + std::string(propName);
}

// Makes room for the new file: with `shouldOverwrite` the old one goes.
void clearTarget(const fs::path& target, bool shouldOverwrite) {
  if (!shouldOverwrite) return;
  std::error_code ignored;
  fs::remove(target, ignored);
}

}  // namespace

fs::path filePath(const SyncAsset& asset) { return syncAssetDefaultURL() / asset.uniqueFileName; }

std::optional<Data> storedData(const SyncAsset& asset) {
  std::ifstream file(filePath(asset), std::ios::binary);
  if (!file) return std::nullopt;
  Data bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) return std::nullopt;
  return bytes;
}

fs::path syncAssetDefaultURL() {
  const auto& privateFolder = Environment::current().privateFolder();
  if (privateFolder.empty()) fatalError("The user's documents directory cannot be found");
  auto folder = privateFolder / "Documents" / std::string(SyncAsset::className);
  std::error_code error;
  makePrivateFolder(folder, error);
  return folder;
}

std::vector<std::string> syncAssetFilesPaths() {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator it(syncAssetDefaultURL(), error), end; !error && it != end; it.increment(error)) {
    names.push_back(it->path().filename().string());
  }
  if (error) return {};
  std::sort(names.begin(), names.end());
  return names;
}

void deleteSyncAssetFile(std::string_view recordName) {
  const auto folder = syncAssetDefaultURL();
  for (const auto& name : syncAssetFilesPaths()) {
    if (name.find(recordName) == std::string::npos) continue;
    std::error_code ignored;
    fs::remove(folder / name, ignored);
  }
}

std::optional<SyncAsset> createSyncAsset(std::string_view objectID, std::string_view propName, const Data& data,
                                         bool shouldOverwrite) {
  SyncAsset asset{uniqueFileName(objectID, propName)};
  const auto target = filePath(asset);
  clearTarget(target, shouldOverwrite);
  std::error_code error;
  if (fs::exists(target, error)) return asset;
  try {
    makePrivateFile(target);
  } catch (const fs::filesystem_error&) {
    return std::nullopt;
  }
  std::ofstream file(target, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  file.close();
  if (!file) return std::nullopt;
  return asset;
}

std::optional<SyncAsset> createSyncAsset(std::string_view objectID, std::string_view propName, const fs::path& url,
                                         bool shouldOverwrite) {
  SyncAsset asset{uniqueFileName(objectID, propName)};
  const auto target = filePath(asset);
  std::error_code error;
  // A record that names this device's own file (a record of ours coming
  // back) would otherwise have its file removed before the copy.
  if (fs::equivalent(url, target, error)) return asset;
  clearTarget(target, shouldOverwrite);
  if (fs::exists(target, error)) return asset;
  if (!fs::copy_file(url, target, error) || error) return std::nullopt;
  return asset;
}

}  // namespace tarnwell::sync
