// How long the library's own files wait on another process's lock.
//
// An import of a large file holds the store's write lock for tens of
// seconds, so a write of another process waits for it generously before it
// gives up with SQLITE_BUSY: three minutes, or TARNWELL_BUSY_TIMEOUT_MS
// milliseconds when that is set to a number (a test's short wait).

#pragma once

namespace tarnwell {

int storeBusyTimeout();
// Replaces the wait for connections opened from now on; for tests.
void setStoreBusyTimeout(int milliseconds);

}  // namespace tarnwell
