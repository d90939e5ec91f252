// Snapshot: a point in the store file's history as one connection sees it,
// so that a value computed from a read can tell later whether the file has
// changed since.

#pragma once

#include <cstdint>

namespace tarnwell::store {

// Two equal snapshots mean that no row of the file changed between them,
// by their connection or by any other; unequal ones say nothing either way.
// The default snapshot equals none taken from a connection.
struct Snapshot {
  std::uint64_t connection = 0;
  std::int64_t dataVersion = 0;
  std::int64_t changes = 0;

  bool operator==(const Snapshot&) const = default;
};

// A committed write: the file as the write found it, and as it left it.
struct Commit {
  Snapshot before;
  Snapshot after;
};

}  // namespace tarnwell::store
