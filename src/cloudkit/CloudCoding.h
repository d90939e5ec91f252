// The emulator's own forms of what it keeps: field values, records, tokens,
// cursors, subscriptions and the long-lived operations a device left behind.
//
// Fields are kept as compact bytes rather than text, because a pull reads
// every field of every record it hands over: a value costs a tag byte and
// its payload, and doubles travel as their bits so they come back exactly.
// An asset is kept by the cloud as an id of its stored bytes; in a
// long-lived operation, which the cloud has not yet run, it stays the file
// the client named.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnwell/cloudkit/Operations.h"
#include "tarnwell/cloudkit/Records.h"
#include "tarnwell/cloudkit/Subscriptions.h"

namespace tarnwell::cloudkit {

class ByteWriter {
 public:
  void byte(std::uint8_t value) { bytes_.push_back(static_cast<char>(value)); }
  void varint(std::uint64_t value);
  void fixed64(std::uint64_t value);
  void real(double value);
  void text(std::string_view value);

  std::string& bytes() { return bytes_; }

 private:
  std::string bytes_;
};

// Throws std::runtime_error at bytes that end early.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : bytes_(bytes) {}

  std::uint8_t byte();
  std::uint64_t varint();
  std::uint64_t fixed64();
  double real();
  std::string_view text();
  // The count of a list whose elements take a byte or more each; a count
  // the bytes left cannot hold throws before anything is made for it.
  std::size_t count();
  bool atEnd() const { return offset_ == bytes_.size(); }

 private:
  std::string_view take(std::size_t count);

  std::string_view bytes_;
  std::size_t offset_ = 0;
};

// How an asset is written and read back: the server's form (an id of the
// stored bytes) or the client's (the file it names).
struct AssetCoding {
  std::function<void(ByteWriter&, const CKAsset&)> write;
  std::function<CKAsset(ByteReader&)> read;
};

// The client's form: the file's path, or none.
AssetCoding clientAssetCoding();

void writeValue(ByteWriter& writer, const CKRecordValue& value, const AssetCoding& assets);
CKRecordValue readValue(ByteReader& reader, const AssetCoding& assets);
// The encoded value alone, as a field of a stored record keeps it.
std::string encodeValue(const CKRecordValue& value, const AssetCoding& assets);
CKRecordValue decodeValue(std::string_view bytes, const AssetCoding& assets);
// Whether an encoded value holds assets at all, and the ids of those stored
// in the server's form.
bool holdsAssets(std::string_view encodedValue);
std::vector<std::int64_t> storedAssetIDs(std::string_view encodedValue);

// A stored record's fields: each key with its encoded value.
using EncodedFields = std::map<std::string, std::string, std::less<>>;
std::string encodeFields(const EncodedFields& fields);
EncodedFields decodeFields(std::string_view bytes);
// The values, read with the server's asset coding.
std::map<std::string, std::optional<CKRecordValue>, std::less<>> decodeFieldValues(std::string_view bytes,
                                                                                   const AssetCoding& assets);

// Where a client stands in a zone's or a database's history. `cloud` names
// the cloud that handed it out; `epoch` the token generation, which expiry
// raises; `incarnation` the zone's life, which a deletion ends.
struct ZoneToken {
  std::string cloud;
  CKDatabaseScope scope = CKDatabaseScope::privateScope;
  CKRecordZoneID zoneID;
  std::int64_t epoch = 0;
  std::int64_t incarnation = 0;
  std::int64_t sequence = 0;
};

struct DatabaseToken {
  std::string cloud;
  CKDatabaseScope scope = CKDatabaseScope::privateScope;
  std::int64_t epoch = 0;
  std::int64_t sequence = 0;
};

struct QueryPosition {
  std::string cloud;
  CKDatabaseScope scope = CKDatabaseScope::privateScope;
  std::string recordType;
  // The first-saved order of the last record handed over.
  std::int64_t after = 0;
};

CKServerChangeToken makeToken(const ZoneToken& token);
CKServerChangeToken makeToken(const DatabaseToken& token);
CKQueryCursor makeCursor(const QueryPosition& position);
// Nothing for text that is not a token (or cursor) of that kind.
std::optional<ZoneToken> readZoneToken(const CKServerChangeToken& token);
std::optional<DatabaseToken> readDatabaseToken(const CKServerChangeToken& token);
std::optional<QueryPosition> readCursor(const CKQueryCursor& cursor);

std::string encodeSubscription(const CKSubscription& subscription);
std::optional<CKSubscription> decodeSubscription(std::string_view text);

// A modify operation as a device left it: enough to rebuild an equal one.
std::string encodeModifyOperation(const CKModifyRecordsOperation& operation);
std::shared_ptr<CKModifyRecordsOperation> decodeModifyOperation(const std::string& operationID, std::string_view bytes);

}  // namespace tarnwell::cloudkit
