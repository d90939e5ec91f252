// What the cloud keeps and hands back as bytes or text: a record's encoded
// fields, a long-lived operation a device left behind, change tokens and
// cursors, subscriptions. The input's first byte picks the decoder; bytes
// that are not of the form must throw std::runtime_error or read as nothing.
#include <stdexcept>

#include "FuzzSupport.h"
#include "cloudkit/CloudCoding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarnwell;
  using namespace tarnwell::cloudkit;
  fuzzing::environment();
  fuzzing::Input input(data, size);
  const auto decoder = input.byte() % 7;
  const std::string bytes = input.rest();
  try {
    switch (decoder) {
      case 0:
        (void)decodeFieldValues(bytes, clientAssetCoding());
        break;
      case 1:
        for (const auto& [key, value] : decodeFields(bytes)) {
          (void)holdsAssets(value);
          (void)storedAssetIDs(value);
        }
        break;
      case 2:
        (void)decodeModifyOperation("operation", bytes);
        break;
      case 3:
        (void)readZoneToken(CKServerChangeToken(bytes));
        (void)readDatabaseToken(CKServerChangeToken(bytes));
        break;
      case 4:
        (void)readCursor(CKQueryCursor{bytes});
        break;
      case 5:
        (void)decodeSubscription(bytes);
        break;
      default:
        (void)CKServerChangeToken::unarchived(Data(bytes.begin(), bytes.end()));
        break;
    }
  } catch (const std::runtime_error&) {
  }
  return 0;
}
