// The files behind SyncAsset values (records/SyncAsset.h).
//
// Asset files lie in one folder, "SyncAsset" under the user's documents
// directory (the app's private folder's "Documents"), made on first use. A
// file is named by its asset's uniqueFileName: the record name, "_" and the
// property name, so a record's files can be found by its record name.
//
// The value is the records' and these functions are the sync layer's, because
// the records cannot know record names: those are the sync layer's mapping.
// Nothing here throws; a file that cannot be read, copied or written gives
// no value.

#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/platform/Data.h"
#include "tarnwell/records/Properties.h"
#include "tarnwell/records/SyncAsset.h"

namespace tarnwell::sync {

// The asset's file.
std::filesystem::path filePath(const SyncAsset& asset);
// The file's bytes; nothing when it cannot be read.
std::optional<Data> storedData(const SyncAsset& asset);

// The folder, made if missing.
std::filesystem::path syncAssetDefaultURL();
// The names of the files in the folder, sorted; empty on any error.
std::vector<std::string> syncAssetFilesPaths();
// Removes every file whose name contains `recordName`; errors are ignored.
void deleteSyncAssetFile(std::string_view recordName);

// The asset of property `propName` of the record named `objectID`, its file
// written from `data` or copied from the file `url`. With `shouldOverwrite`
// an existing file is replaced; without it, it is kept as it is and the
// asset returned. Nothing when the file cannot be written or copied.
std::optional<SyncAsset> createSyncAsset(std::string_view objectID, std::string_view propName, const Data& data,
                                         bool shouldOverwrite);
std::optional<SyncAsset> createSyncAsset(std::string_view objectID, std::string_view propName,
                                         const std::filesystem::path& url, bool shouldOverwrite);

// The same for a record, named by its recordID (RecordMapping.h).
template <class T>
CKRecordID recordID(const T& object);
template <records::HasProperties T>
std::optional<SyncAsset> createSyncAsset(const T& object, std::string_view propName, const Data& data,
                                         bool shouldOverwrite) {
  return createSyncAsset(recordID(object).recordName, propName, data, shouldOverwrite);
}
template <records::HasProperties T>
std::optional<SyncAsset> createSyncAsset(const T& object, std::string_view propName, const std::filesystem::path& url,
                                         bool shouldOverwrite) {
  return createSyncAsset(recordID(object).recordName, propName, url, shouldOverwrite);
}

}  // namespace tarnwell::sync
