#include "tarnwell/platform/Keychain.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "support/TestEnvironment.h"
#include "tarnwell/platform/Base64.h"

namespace tarnwell {
namespace {

class KeychainTest : public testing::EnvironmentTest {
 protected:
  std::filesystem::path file() const { return env.root() / "keychain" / "org.vostra.tarnwell.keychain"; }
};

TEST_F(KeychainTest, ItemsLiveInAPrivateFileOutsideTheInstallation) {
  EXPECT_FALSE(Keychain::get(Keychain::Key::deviceId));
  Keychain::set(Keychain::Key::deviceId, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  struct stat info {};
  ASSERT_EQ(::stat(file().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  // A reinstall empties the installation's folders, not the keychain.
  std::filesystem::remove_all(env.root() / "installation");
  env.relaunch();
  EXPECT_EQ(Keychain::get(Keychain::Key::deviceId), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  Keychain::set(Keychain::Key::deviceId, std::nullopt);
  EXPECT_FALSE(Keychain::get(Keychain::Key::deviceId));
}

TEST_F(KeychainTest, BytesAndServicesStayApart) {
  FileKeychainStore store(env.root() / "other");
  store.set("one", "key", Data{0, 255, 10});
  store.set("two", "key", Data{});
  EXPECT_EQ(store.get("one", "key"), (Data{0, 255, 10}));
  EXPECT_EQ(store.get("two", "key"), Data{});
  EXPECT_FALSE(store.get("two", "other"));
  store.remove("one", "key");
  EXPECT_FALSE(store.get("one", "key"));
}

TEST_F(KeychainTest, ADamagedFileReadsAsAbsenceAndRefusesWrites) {
  std::filesystem::create_directories(file().parent_path());
  std::ofstream(file()) << "not json";
  EXPECT_FALSE(Keychain::get(Keychain::Key::deviceId));
  Keychain::set(Keychain::Key::deviceId, "X");  // dropped, not thrown
  FileKeychainStore store(file().parent_path());
  EXPECT_THROW(store.get(Keychain::kService, "deviceId"), KeychainError);
}

TEST(Base64Test, RoundTripsAndRefusesBadText) {
  EXPECT_EQ(base64::encode(Data{'M', 'a', 'n'}), "TWFu");
  EXPECT_EQ(base64::encode(Data{'M', 'a'}), "TWE=");
  EXPECT_EQ(base64::encode(Data{'M'}), "TQ==");
  EXPECT_EQ(base64::decode("TQ=="), (Data{'M'}));
  EXPECT_EQ(base64::decode(""), Data{});
  for (const char* bad : {"TQ=", "T===", "TQ==TQ==", "TW!u", "=QQQ"}) EXPECT_FALSE(base64::decode(bad)) << bad;
}

}  // namespace
}  // namespace tarnwell
