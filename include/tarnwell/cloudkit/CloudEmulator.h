// CloudEmulator: the user's cloud database on this machine.
//
// One emulator is one user's cloud: a private database, a public one, the
// user's subscriptions, and the devices signed in to it. It keeps the
// platform's semantics, because the sync layer's correctness depends on them:
//
// - Changes are committed per zone in order; each commit advances the
//   zone's change sequence, and a fetch returns, in that order, the records
//   changed since a token, one version per record, and a tombstone for each
//   deletion, also for a fetch from no token (a device whose token expired
//   starts over and must learn what was deleted meanwhile). Tokens are
//   opaque to the client.
// - Fetches page: a page holds at most `pageSize` changes; a fetch that
//   stops early says more is coming (with fetchAllChanges the operation goes
//   on by itself, and updates the token between pages).
// - Saves follow the operation's policy: changed keys (the last writer wins
//   field by field), all keys, or only if the server's record is unchanged.
//   An atomic operation writes all items of a zone or none; a failed item
//   gives partialFailure (2) with each item's error, the others of its zone
//   batchRequestFailed (22). A save into a zone that does not exist is
//   zoneNotFound (26), into one the user deleted userDeletedZone (28).
//   Deleting a record that is not there succeeds.
// - A request of more than `requestLimit` items (records plus deletions)
//   fails as a whole with limitExceeded (27).
// - A committed change leaves a silent push for every other device signed
//   in whose user has a subscription that matches: a database subscription
//   for any change of its database, a query subscription for records of its
//   type. A device hears pushes through its container's handler; pushes
//   that come while it has none (or, for the folder, while it runs in
//   another process) wait for it.
// - A device whose account is not available runs nothing but queries of
//   the public database, which anybody may read: every other operation
//   fails with notAuthenticated (9).
//
// Faults are injected on the emulator and hit every device: an error code
// for the next N operations of a kind (or of any kind), with or without
// retry-after; expiry of every token handed out so far; a zone deleted as
// if by the user; completions that never come (the operation still runs on
// the server); pushes that never arrive.
//
// Three backings with the same behaviour: in memory, for unit tests; a
// folder holding a SQLite file, shared by the installations of one machine
// that signed in to it, and by their processes; and a PostgreSQL server,
// for devices on several machines. The folder and the server also keep each
// device's waiting pushes and unfinished long-lived operations, and the
// fault switches, so that a script can set them between two processes.
//
// On the server each user is a role with a schema of their own, named after
// it and readable by nobody else; the schema holds the same tables as the
// folder's file. A schema, or anything in it, that another role owns or is
// granted any privilege on (PUBLIC included) is refused: another role
// could read or drop what the user pushes. No cloud step waits on the
// server for long: connecting, each statement and each lock have a timeout
// of a few seconds, and a write that runs out of them fails as a network
// failure. Writers of one user's cloud take turns (the first thing a
// writing transaction does is lock the user's sequence table), and a change
// sequence is read and raised only under that lock, so sequences commit in
// the order they are handed out: a reader's token, taken in the same
// snapshot as the changes it pages, never passes a change that commits
// later. A commit that leaves pushes notifies the cloud's channel, whose
// name is a secret made with the cloud and kept in its schema (a channel
// is heard by whoever listens on its name); a device that waits on it
// (waitForPushes) hears of them at once.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/cloudkit/Container.h"
#include "tarnwell/platform/DispatchQueue.h"

namespace tarnwell {

// The kinds of operation a fault can be aimed at.
enum class CKOperationKind {
  modifyRecords,         // "modify"
  fetchDatabaseChanges,  // "fetch-database"
  fetchZoneChanges,      // "fetch-zone"
  modifyZones,           // "modify-zones"
  modifySubscriptions,   // "subscriptions"
  query,                 // "query"
};

std::string_view name(CKOperationKind kind);
std::optional<CKOperationKind> operationKindNamed(std::string_view name);

struct CloudFault {
  // Any raw code, also one the platform does not name.
  int code = static_cast<int>(CKErrorCode::serviceUnavailable);
  std::optional<double> retryAfter;
  // How many operations it fails, from the next one on.
  int times = 1;
  // Any kind when absent.
  std::optional<CKOperationKind> on;

  friend bool operator==(const CloudFault&, const CloudFault&) = default;
};

// One operation as the cloud saw it, for tests and the command line.
struct CloudRequest {
  std::string deviceID;
  CKOperationKind kind;
  CKDatabaseScope scope;
  std::size_t recordsToSave = 0;
  std::size_t recordIDsToDelete = 0;
  // 0 when it went through; the error's code otherwise.
  int errorCode = 0;
};

// Thrown when a folder, or a server, cannot be used as a cloud.
class CloudFolderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A cloud on a PostgreSQL server, and the user who signs in to it.
//
// A server on another machine is spoken to over TLS only: with no sslmode
// in its URL the certificate is checked against the host's name
// (verify-full), and a mode that would fall back to the clear is refused;
// sslmode=disable says on purpose that the network is trusted. A server on
// this machine (localhost, 127.0.0.0/8, ::1 or a socket folder) needs none.
struct CloudServer {
  std::string user;
  std::string host = "localhost";
  int port = 5432;
  std::string database;
  // libpq's options, empty (or nullopt) when the URL leaves them out.
  std::string sslmode;
  std::string sslrootcert;
  std::optional<int> connectTimeout;
  // Empty when the server asks for none, or libpq finds it (PGPASSFILE).
  std::string password;
  // The user's own schema when empty; tests name a fresh one.
  std::string schema;

  // "postgresql://USER@HOST:PORT/DB", the port left out or not, then
  // optionally "?sslmode=...&connect_timeout=SECONDS&sslrootcert=FILE". A
  // host in brackets is an IPv6 address; one written %2F... is the folder
  // of the server's socket. Nullopt for anything else, a password in the
  // URL included (it belongs in the keychain, not in a line that shells and
  // logs keep), and `problem`, when given, says what is wrong in a line.
  static std::optional<CloudServer> parse(std::string_view url, std::string* problem = nullptr);
  // The URL again, without the password: parse(url()) gives the same server.
  std::string url() const;
  // The schema the cloud lives in.
  std::string schemaName() const { return schema.empty() ? user : schema; }
  // Whether the host is this machine: loopback, or a socket folder.
  bool onThisMachine() const;
  // The sslmode the connection asks for: the URL's, or verify-full for a
  // server on another machine, prefer for this one.
  std::string effectiveSslMode() const;
};

class EmulatedContainer;

class CloudEmulator : public std::enable_shared_from_this<CloudEmulator> {
 public:
  struct Options {
    std::size_t requestLimit = 400;
    std::size_t pageSize = 400;
  };

  // A cloud in memory. Blocks run on `queue`, which the test pumps.
  static std::shared_ptr<CloudEmulator> inMemory(std::shared_ptr<DispatchQueue> queue, Options options);
  static std::shared_ptr<CloudEmulator> inMemory(std::shared_ptr<DispatchQueue> queue) {
    return inMemory(std::move(queue), Options());
  }
  // The cloud in `folder`: made there when `create` is true and the folder
  // is empty or absent; otherwise CloudFolderError when the folder is
  // missing or is not a cloud. Blocks run on `queue`.
  static std::shared_ptr<CloudEmulator> open(const std::filesystem::path& folder, bool create,
                                             std::shared_ptr<DispatchQueue> queue, Options options);
  static std::shared_ptr<CloudEmulator> open(const std::filesystem::path& folder, bool create,
                                             std::shared_ptr<DispatchQueue> queue) {
    return open(folder, create, std::move(queue), Options());
  }
  static bool isCloudFolder(const std::filesystem::path& folder);
  // The cloud on `server`: made there (the user's schema and its tables)
  // when `create` is true and it is not there yet. CloudFolderError when the
  // server cannot be reached, refuses the user, holds no cloud for them and
  // `create` is false, or keeps the schema where another role can reach it.
  static std::shared_ptr<CloudEmulator> connect(const CloudServer& server, bool create,
                                                std::shared_ptr<DispatchQueue> queue, Options options);
  static std::shared_ptr<CloudEmulator> connect(const CloudServer& server, bool create,
                                                std::shared_ptr<DispatchQueue> queue) {
    return connect(server, create, std::move(queue), Options());
  }
  // Whether the server holds a cloud for the user, without making one;
  // CloudFolderError as connect() when the schema is not the user's alone.
  static bool serverHoldsCloud(const CloudServer& server);

  virtual ~CloudEmulator() = default;

  // Waits up to `timeout` for a commit that left pushes for some device of
  // this cloud, and says whether one came. On a server the commit notifies
  // at once; a folder cannot tell, so it waits the whole time and says true.
  virtual bool waitForPushes(std::chrono::milliseconds timeout) = 0;

  // The container of application `containerIdentifier` on device `deviceID`,
  // signed in to this cloud with an available account.
  virtual std::shared_ptr<EmulatedContainer> container(const std::string& deviceID,
                                                       const std::string& containerIdentifier) = 0;

  // Faults.
  virtual void addFault(CloudFault fault) = 0;
  virtual std::vector<CloudFault> faults() const = 0;
  virtual void clearFaults() = 0;
  // Every database and zone token handed out so far is answered with
  // changeTokenExpired (21) from now on.
  virtual void expireTokens() = 0;
  // The user deleted the zone in the settings: its records are gone, a fetch
  // or save in it fails with userDeletedZone (28) until it is created again.
  virtual void deleteZone(CKDatabaseScope scope, const CKRecordZoneID& zoneID) = 0;
  // The next `count` operations run on the server but call no completion.
  // What a fetch or a query hands over still reaches its per-record blocks
  // (and a long fetch its token updates); only the blocks that end it, a
  // zone's and the operation's, are lost.
  virtual void dropCompletions(int count) = 0;
  // The next `count` pushes are never delivered.
  virtual void dropPushes(int count) = 0;

  // What the cloud holds: the live records of a database, by zone and
  // record name; of one type when given.
  virtual std::vector<CKRecord> records(CKDatabaseScope scope,
                                        const std::optional<std::string>& recordType = std::nullopt) const = 0;
  virtual std::vector<CKRecordZone> zones(CKDatabaseScope scope) const = 0;
  virtual std::vector<CKSubscription> subscriptions(CKDatabaseScope scope) const = 0;
  // The operations run so far, oldest first (in memory only this process's).
  virtual std::vector<CloudRequest> requests() const = 0;
};

// A device's view of the cloud, as the platform's container is.
class EmulatedContainer : public CKContainer {
 public:
  virtual const std::string& deviceID() const = 0;
  // Forces what accountStatus answers for this device.
  virtual void setAccountStatus(CKAccountStatus status) = 0;
  // Hands the pushes waiting for this device to the handler now (those that
  // other processes left in the folder); returns how many.
  virtual std::size_t deliverPendingPushes() = 0;
  // How many pushes wait for this device.
  virtual std::size_t pendingPushCount() const = 0;
};

}  // namespace tarnwell
