// SyncAsset: a file that travels with a record.
//
// A record keeps only the file's name; the bytes lie in a folder of their
// own, outside the store, and go to the cloud as an asset of the record.
// The name is unique per record and property: the record name, "_" and the
// property name. The value lives here, with the records that hold it; the
// functions on its files belong to the sync layer (sync/SyncAsset.h).

#pragma once

#include <string>
#include <string_view>

namespace tarnwell {

struct SyncAsset {
  static constexpr std::string_view className = "SyncAsset";

  std::string uniqueFileName;

  friend bool operator==(const SyncAsset&, const SyncAsset&) = default;
};

}  // namespace tarnwell
