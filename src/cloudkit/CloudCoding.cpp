#include "cloudkit/CloudCoding.h"

#include <bit>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <type_traits>

#include "tarnwell/platform/Base64.h"

namespace tarnwell::cloudkit {
namespace {

enum ValueTag : std::uint8_t {
  kInteger = 1,
  kDouble = 2,
  kText = 3,
  kBytes = 4,
  kDate = 5,
  kReference = 6,
  kAsset = 7,
  // Added to an element's tag for a list of them.
  kList = 0x40,
};

// Prefixes that keep a token of one kind from being read as another.
constexpr std::string_view kZoneTokenKind = "zone";
constexpr std::string_view kDatabaseTokenKind = "database";
constexpr std::string_view kCursorKind = "query";

std::uint64_t zigzag(std::int64_t value) {
  return (static_cast<std::uint64_t>(value) << 1) ^ static_cast<std::uint64_t>(value >> 63);
}
std::int64_t unzigzag(std::uint64_t value) {
  return static_cast<std::int64_t>(value >> 1) ^ -static_cast<std::int64_t>(value & 1);
}

template <class T>
constexpr std::uint8_t tagOf() {
  if constexpr (std::is_same_v<T, std::int64_t>) return kInteger;
  if constexpr (std::is_same_v<T, double>) return kDouble;
  if constexpr (std::is_same_v<T, std::string>) return kText;
  if constexpr (std::is_same_v<T, Data>) return kBytes;
  if constexpr (std::is_same_v<T, Date>) return kDate;
  if constexpr (std::is_same_v<T, CKReference>) return kReference;
  if constexpr (std::is_same_v<T, CKAsset>) return kAsset;
  return 0;
}

template <class T>
struct IsList : std::false_type {};
template <class T>
struct IsList<std::vector<T>> : std::true_type {};
// Data is a vector too, but one value.
template <>
struct IsList<Data> : std::false_type {};

void writeScalar(ByteWriter& writer, std::int64_t value, const AssetCoding&) { writer.varint(zigzag(value)); }
void writeScalar(ByteWriter& writer, double value, const AssetCoding&) { writer.real(value); }
void writeScalar(ByteWriter& writer, const std::string& value, const AssetCoding&) { writer.text(value); }
void writeScalar(ByteWriter& writer, const Data& value, const AssetCoding&) {
  writer.text(std::string_view(reinterpret_cast<const char*>(value.data()), value.size()));
}
void writeScalar(ByteWriter& writer, Date value, const AssetCoding&) {
  writer.real(value.timeIntervalSinceReferenceDate());
}
void writeScalar(ByteWriter& writer, const CKReference& value, const AssetCoding&) {
  writer.text(value.recordID.recordName);
  writer.text(value.recordID.zoneID.zoneName);
  writer.text(value.recordID.zoneID.ownerName);
  writer.varint(static_cast<std::uint64_t>(value.action));
}
void writeScalar(ByteWriter& writer, const CKAsset& value, const AssetCoding& assets) { assets.write(writer, value); }

template <class T>
T readScalar(ByteReader& reader, const AssetCoding& assets) {
  if constexpr (std::is_same_v<T, std::int64_t>) {
    return unzigzag(reader.varint());
  } else if constexpr (std::is_same_v<T, double>) {
    return reader.real();
  } else if constexpr (std::is_same_v<T, std::string>) {
    return std::string(reader.text());
  } else if constexpr (std::is_same_v<T, Data>) {
    const std::string_view bytes = reader.text();
    return Data(bytes.begin(), bytes.end());
  } else if constexpr (std::is_same_v<T, Date>) {
    return Date::fromTimeIntervalSinceReferenceDate(reader.real());
  } else if constexpr (std::is_same_v<T, CKReference>) {
    CKReference reference;
    reference.recordID.recordName = std::string(reader.text());
    reference.recordID.zoneID.zoneName = std::string(reader.text());
    reference.recordID.zoneID.ownerName = std::string(reader.text());
    reference.action = static_cast<CKReferenceAction>(reader.varint());
    return reference;
  } else {
    static_assert(std::is_same_v<T, CKAsset>);
    return assets.read(reader);
  }
}

template <class T>
CKRecordValue readTagged(ByteReader& reader, bool list, const AssetCoding& assets) {
  if (!list) return readScalar<T>(reader, assets);
  std::vector<T> elements(reader.count());
  for (auto& element : elements) element = readScalar<T>(reader, assets);
  return elements;
}

// Walks an encoded value, calling `asset` for each asset in it.
void visitAssets(std::string_view encoded, const std::function<void(ByteReader&)>& asset) {
  ByteReader reader(encoded);
  const std::uint8_t tag = reader.byte();
  if ((tag & ~kList) != kAsset) return;
  const std::uint64_t count = (tag & kList) != 0 ? reader.varint() : 1;
  for (std::uint64_t index = 0; index < count; ++index) asset(reader);
}

std::string packToken(std::string_view kind, nlohmann::json fields) {
  fields.insert(fields.begin(), kind);
  const std::string text = fields.dump();
  return base64::encode(Data(text.begin(), text.end()));
}

// The fields after the kind, or nothing when `opaque` is not of that kind.
std::optional<nlohmann::json> unpackToken(std::string_view kind, std::string_view opaque, std::size_t count) {
  const auto bytes = base64::decode(opaque);
  if (!bytes) return std::nullopt;
  auto fields = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
  if (!fields.is_array() || fields.size() != count + 1 || fields[0] != kind) return std::nullopt;
  fields.erase(fields.begin());
  return fields;
}

std::optional<CKDatabaseScope> scopeFromRaw(const nlohmann::json& value) {
  if (!value.is_number_integer()) return std::nullopt;
  const auto raw = value.get<std::int64_t>();
  if (raw < 1 || raw > 3) return std::nullopt;
  return static_cast<CKDatabaseScope>(raw);
}

void writeRecordID(ByteWriter& writer, const CKRecordID& recordID) {
  writer.text(recordID.recordName);
  writer.text(recordID.zoneID.zoneName);
  writer.text(recordID.zoneID.ownerName);
}

CKRecordID readRecordID(ByteReader& reader) {
  CKRecordID recordID;
  recordID.recordName = std::string(reader.text());
  recordID.zoneID.zoneName = std::string(reader.text());
  recordID.zoneID.ownerName = std::string(reader.text());
  return recordID;
}

}  // namespace

void ByteWriter::varint(std::uint64_t value) {
  while (value >= 0x80) {
    byte(static_cast<std::uint8_t>(value | 0x80));
    value >>= 7;
  }
  byte(static_cast<std::uint8_t>(value));
}

void ByteWriter::fixed64(std::uint64_t value) {
  for (int shift = 0; shift < 64; shift += 8) byte(static_cast<std::uint8_t>(value >> shift));
}

void ByteWriter::real(double value) { fixed64(std::bit_cast<std::uint64_t>(value)); }

void ByteWriter::text(std::string_view value) {
  varint(value.size());
  bytes_.append(value);
}

std::string_view ByteReader::take(std::size_t count) {
  if (count > bytes_.size() - offset_) throw std::runtime_error("The cloud's stored bytes end early");
  const std::string_view part = bytes_.substr(offset_, count);
  offset_ += count;
  return part;
}

std::uint8_t ByteReader::byte() { return static_cast<std::uint8_t>(take(1)[0]); }

std::uint64_t ByteReader::varint() {
  std::uint64_t value = 0;
  for (int shift = 0; shift < 64; shift += 7) {
    const std::uint8_t next = byte();
    value |= static_cast<std::uint64_t>(next & 0x7f) << shift;
    if ((next & 0x80) == 0) return value;
  }
  throw std::runtime_error("The cloud's stored number is too long");
}

std::uint64_t ByteReader::fixed64() {
  const std::string_view part = take(8);
  std::uint64_t value = 0;
  for (int index = 7; index >= 0; --index) {
    value = (value << 8) | static_cast<std::uint8_t>(part[static_cast<std::size_t>(index)]);
  }
  return value;
}

double ByteReader::real() { return std::bit_cast<double>(fixed64()); }

std::string_view ByteReader::text() { return take(varint()); }

std::size_t ByteReader::count() {
  const std::uint64_t value = varint();
  if (value > bytes_.size() - offset_) throw std::runtime_error("The cloud's stored bytes end early");
  return static_cast<std::size_t>(value);
}

AssetCoding clientAssetCoding() {
  return {[](ByteWriter& writer, const CKAsset& asset) {
            writer.byte(asset.fileURL ? 1 : 0);
            if (asset.fileURL) writer.text(asset.fileURL->string());
          },
          [](ByteReader& reader) {
            CKAsset asset;
            if (reader.byte() != 0) asset.fileURL = std::filesystem::path(std::string(reader.text()));
            return asset;
          }};
}

void writeValue(ByteWriter& writer, const CKRecordValue& value, const AssetCoding& assets) {
  std::visit(
      [&](const auto& typed) {
        using T = std::decay_t<decltype(typed)>;
        if constexpr (IsList<T>::value) {
          writer.byte(tagOf<typename T::value_type>() | kList);
          writer.varint(typed.size());
          for (const auto& element : typed) writeScalar(writer, element, assets);
        } else {
          writer.byte(tagOf<T>());
          writeScalar(writer, typed, assets);
        }
      },
      value);
}

CKRecordValue readValue(ByteReader& reader, const AssetCoding& assets) {
  const std::uint8_t tag = reader.byte();
  const bool list = (tag & kList) != 0;
  switch (tag & ~kList) {
    case kInteger:
      return readTagged<std::int64_t>(reader, list, assets);
    case kDouble:
      return readTagged<double>(reader, list, assets);
    case kText:
      return readTagged<std::string>(reader, list, assets);
    case kBytes:
      return readTagged<Data>(reader, list, assets);
    case kDate:
      return readTagged<Date>(reader, list, assets);
    case kReference:
      return readTagged<CKReference>(reader, list, assets);
    case kAsset:
      return readTagged<CKAsset>(reader, list, assets);
    default:
      throw std::runtime_error("The cloud holds a value of unknown kind " + std::to_string(tag));
  }
}

std::string encodeValue(const CKRecordValue& value, const AssetCoding& assets) {
  ByteWriter writer;
  writeValue(writer, value, assets);
  return std::move(writer.bytes());
}

CKRecordValue decodeValue(std::string_view bytes, const AssetCoding& assets) {
  ByteReader reader(bytes);
  return readValue(reader, assets);
}

bool holdsAssets(std::string_view encodedValue) {
  return !encodedValue.empty() && (static_cast<std::uint8_t>(encodedValue[0]) & ~kList) == kAsset;
}

std::vector<std::int64_t> storedAssetIDs(std::string_view encodedValue) {
  std::vector<std::int64_t> ids;
  visitAssets(encodedValue, [&](ByteReader& reader) { ids.push_back(static_cast<std::int64_t>(reader.varint())); });
  return ids;
}

std::string encodeFields(const EncodedFields& fields) {
  ByteWriter writer;
  writer.varint(fields.size());
  for (const auto& [key, value] : fields) {
    writer.text(key);
    writer.text(value);
  }
  return std::move(writer.bytes());
}

EncodedFields decodeFields(std::string_view bytes) {
  EncodedFields fields;
  ByteReader reader(bytes);
  for (std::uint64_t count = reader.varint(); count > 0; --count) {
    const std::string_view key = reader.text();
    fields.emplace(std::string(key), std::string(reader.text()));
  }
  return fields;
}

std::map<std::string, std::optional<CKRecordValue>, std::less<>> decodeFieldValues(std::string_view bytes,
                                                                                   const AssetCoding& assets) {
  std::map<std::string, std::optional<CKRecordValue>, std::less<>> values;
  ByteReader reader(bytes);
  for (std::uint64_t count = reader.varint(); count > 0; --count) {
    const std::string_view key = reader.text();
    const std::string_view value = reader.text();
    values.emplace_hint(values.end(), std::string(key), decodeValue(value, assets));
  }
  return values;
}

CKServerChangeToken makeToken(const ZoneToken& token) {
  return CKServerChangeToken(
      packToken(kZoneTokenKind, {token.cloud, static_cast<std::int64_t>(token.scope), token.zoneID.zoneName,
                                 token.zoneID.ownerName, token.epoch, token.incarnation, token.sequence}));
}

CKServerChangeToken makeToken(const DatabaseToken& token) {
  return CKServerChangeToken(packToken(
      kDatabaseTokenKind, {token.cloud, static_cast<std::int64_t>(token.scope), token.epoch, token.sequence}));
}

CKQueryCursor makeCursor(const QueryPosition& position) {
  return CKQueryCursor{packToken(
      kCursorKind, {position.cloud, static_cast<std::int64_t>(position.scope), position.recordType, position.after})};
}

std::optional<ZoneToken> readZoneToken(const CKServerChangeToken& token) {
  const auto fields = unpackToken(kZoneTokenKind, token.opaque(), 7);
  if (!fields) return std::nullopt;
  const auto& f = *fields;
  const auto scope = scopeFromRaw(f[1]);
  if (!f[0].is_string() || !scope || !f[2].is_string() || !f[3].is_string() || !f[4].is_number_integer() ||
      !f[5].is_number_integer() || !f[6].is_number_integer()) {
    return std::nullopt;
  }
  return ZoneToken{f[0].get<std::string>(),
                   *scope,
                   CKRecordZoneID{f[2].get<std::string>(), f[3].get<std::string>()},
                   f[4].get<std::int64_t>(),
                   f[5].get<std::int64_t>(),
                   f[6].get<std::int64_t>()};
}

std::optional<DatabaseToken> readDatabaseToken(const CKServerChangeToken& token) {
  const auto fields = unpackToken(kDatabaseTokenKind, token.opaque(), 4);
  if (!fields) return std::nullopt;
  const auto& f = *fields;
  const auto scope = scopeFromRaw(f[1]);
  if (!f[0].is_string() || !scope || !f[2].is_number_integer() || !f[3].is_number_integer()) return std::nullopt;
  return DatabaseToken{f[0].get<std::string>(), *scope, f[2].get<std::int64_t>(), f[3].get<std::int64_t>()};
}

std::optional<QueryPosition> readCursor(const CKQueryCursor& cursor) {
  const auto fields = unpackToken(kCursorKind, cursor.opaque, 4);
  if (!fields) return std::nullopt;
  const auto& f = *fields;
  const auto scope = scopeFromRaw(f[1]);
  if (!f[0].is_string() || !scope || !f[2].is_string() || !f[3].is_number_integer()) return std::nullopt;
  return QueryPosition{f[0].get<std::string>(), *scope, f[2].get<std::string>(), f[3].get<std::int64_t>()};
}

std::string encodeSubscription(const CKSubscription& subscription) {
  return std::visit(
      [](const auto& typed) {
        using T = std::decay_t<decltype(typed)>;
        nlohmann::json json = {{"id", typed.subscriptionID},
                               {"contentAvailable", typed.notificationInfo.shouldSendContentAvailable}};
        if constexpr (std::is_same_v<T, CKQuerySubscription>) {
          json["recordType"] = typed.recordType;
          json["options"] = typed.options;
        }
        return json.dump();
      },
      subscription);
}

std::optional<CKSubscription> decodeSubscription(std::string_view text) {
  const auto json = nlohmann::json::parse(text, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  // A field of another type is a damaged row, like a missing one: no
  // subscription, rather than an error of the JSON library's own.
  const auto has = [&json](const char* key, bool (nlohmann::json::*is)() const noexcept) {
    const auto found = json.find(key);
    return found != json.end() && ((*found).*is)();
  };
  const auto lacks = [&json](const char* key) { return !json.contains(key); };
  if (!has("id", &nlohmann::json::is_string)) return std::nullopt;
  if (!lacks("contentAvailable") && !has("contentAvailable", &nlohmann::json::is_boolean)) return std::nullopt;
  const CKNotificationInfo info{json.value("contentAvailable", false)};
  if (lacks("recordType")) return CKDatabaseSubscription{json.at("id").get<std::string>(), info};
  if (!has("recordType", &nlohmann::json::is_string)) return std::nullopt;
  if (!lacks("options") && !has("options", &nlohmann::json::is_number_integer)) return std::nullopt;
  return CKQuerySubscription{json.at("recordType").get<std::string>(), json.at("id").get<std::string>(),
                             json.value("options", std::int64_t{0}), info};
}

std::string encodeModifyOperation(const CKModifyRecordsOperation& operation) {
  const AssetCoding assets = clientAssetCoding();
  ByteWriter writer;
  writer.varint(static_cast<std::uint64_t>(operation.savePolicy));
  writer.byte(operation.isAtomic ? 1 : 0);
  writer.varint(operation.recordsToSave.size());
  for (const CKRecord& record : operation.recordsToSave) {
    writer.text(record.recordType());
    writeRecordID(writer, record.recordID());
    const bool fromServer = record.recordChangeTag().has_value();
    writer.byte(fromServer ? 1 : 0);
    if (fromServer) {
      writer.text(*record.recordChangeTag());
      writer.real(record.creationDate().value_or(Date()).timeIntervalSinceReferenceDate());
      writer.real(record.modificationDate().value_or(Date()).timeIntervalSinceReferenceDate());
    }
    writer.varint(record.fields().size());
    for (const auto& [key, value] : record.fields()) {
      writer.text(key);
      writer.byte(value ? 1 : 0);
      if (value) writeValue(writer, *value, assets);
    }
    const auto changed = record.changedKeys();
    writer.varint(changed.size());
    for (const auto& key : changed) writer.text(key);
  }
  writer.varint(operation.recordIDsToDelete.size());
  for (const CKRecordID& recordID : operation.recordIDsToDelete) writeRecordID(writer, recordID);
  return std::move(writer.bytes());
}

std::shared_ptr<CKModifyRecordsOperation> decodeModifyOperation(const std::string& operationID,
                                                                std::string_view bytes) {
  const AssetCoding assets = clientAssetCoding();
  ByteReader reader(bytes);
  const auto policy = static_cast<CKRecordSavePolicy>(reader.varint());
  const bool atomic = reader.byte() != 0;
  std::vector<CKRecord> records(reader.count());
  for (CKRecord& record : records) {
    std::string type(reader.text());
    CKRecordID recordID = readRecordID(reader);
    std::optional<std::string> tag;
    Date created;
    Date modified;
    if (reader.byte() != 0) {
      tag = std::string(reader.text());
      created = Date::fromTimeIntervalSinceReferenceDate(reader.real());
      modified = Date::fromTimeIntervalSinceReferenceDate(reader.real());
    }
    std::map<std::string, std::optional<CKRecordValue>, std::less<>> fields;
    for (std::uint64_t count = reader.varint(); count > 0; --count) {
      std::string key(reader.text());
      std::optional<CKRecordValue> value;
      if (reader.byte() != 0) value = readValue(reader, assets);
      fields.emplace(std::move(key), std::move(value));
    }
    std::vector<std::string> changed(reader.count());
    for (auto& key : changed) key = std::string(reader.text());

    // A record the client made has every key it holds changed; one from the
    // server has its system fields and only the keys set since.
    if (tag) {
      record = CKRecord::fromServer(std::move(type), std::move(recordID), fields, *tag, created, modified);
      for (const auto& key : changed) {
        const auto found = fields.find(key);
        record.setObject(key, found == fields.end() ? std::nullopt : found->second);
      }
    } else {
      record = CKRecord(std::move(type), std::move(recordID));
      for (auto& [key, value] : fields) record.setObject(key, std::move(value));
    }
  }
  std::vector<CKRecordID> deletions(reader.count());
  for (auto& recordID : deletions) recordID = readRecordID(reader);

  auto operation = std::make_shared<CKModifyRecordsOperation>(std::move(records), std::move(deletions));
  operation->operationID = operationID;
  operation->configuration.isLongLived = true;
  operation->savePolicy = policy;
  operation->isAtomic = atomic;
  return operation;
}

}  // namespace tarnwell::cloudkit
