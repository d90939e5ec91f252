#include "tarnwell/settings/AppInfo.h"

#include "tarnwell/platform/Environment.h"

namespace tarnwell {
namespace {

// The project's own addresses. They are configuration: a distribution of the
// app under another name changes them here and nowhere else.
constexpr const char* kWebsite = "https://vostra.org/tarnwell";
constexpr const char* kWebsiteChinese = "https://vostra.org/tarnwell/zh";
constexpr const char* kAppStoreId = "";  // no store listing yet
constexpr const char* kFeedbackEmail = "tarnwell@vostra.org";
constexpr const char* kChatServiceAccountName = "tarnwell";

struct LocaleFacts {
  explicit LocaleFacts(Environment& environment) {
    const Region region = environment.region();
    isAtChina = region.regionCode().find("CN") != std::string::npos;
    isChineseLanguage = region.languageCode().find("zh") != std::string::npos;
    const auto languages = environment.preferredLanguages();
    isSimplifiedChinese = !languages.empty() && languages.front().find("zh-Hans") != std::string::npos;
    isTriditionalChinese = !languages.empty() && languages.front().find("zh-Hant") != std::string::npos;
  }
  bool isAtChina;
  bool isChineseLanguage;
  bool isSimplifiedChinese;
  bool isTriditionalChinese;
};

const LocaleFacts& facts() { return Environment::current().component<LocaleFacts>(); }

std::string page(const char* path) {
  return std::string(AppInfo::isChineseLanguage() ? kWebsiteChinese : kWebsite) + path;
}

std::string infoValue(const std::map<std::string, std::string>& dictionary, const char* key) {
  const auto found = dictionary.find(key);
  return found == dictionary.end() ? std::string() : found->second;
}

}  // namespace

bool AppInfo::isAtChina() { return facts().isAtChina; }
bool AppInfo::isChineseLanguage() { return facts().isChineseLanguage; }
bool AppInfo::isSimplifiedChinese() { return facts().isSimplifiedChinese; }
bool AppInfo::isTriditionalChinese() { return facts().isTriditionalChinese; }

std::string AppInfo::displayName() {
  const BundleInfo& bundle = Environment::current().bundle();
  if (auto name = infoValue(bundle.localizedInfoDictionary, "CFBundleDisplayName"); !name.empty()) return name;
  if (auto name = infoValue(bundle.infoDictionary, "CFBundleDisplayName"); !name.empty()) return name;
  return "Tarnwell";
}

std::string AppInfo::versionString() {
  const auto version = infoValue(Environment::current().bundle().infoDictionary, "CFBundleShortVersionString");
  return version.empty() ? "Unknown version" : version;
}

std::string AppInfo::buildString() {
  const auto build = infoValue(Environment::current().bundle().infoDictionary, "CFBundleVersion");
  return build.empty() ? "Unknown Build" : build;
}

std::string AppInfo::appStoreId() { return kAppStoreId; }
std::string AppInfo::appStoreURL() { return std::string(kWebsite) + "/download"; }
std::string AppInfo::appStorerReviewURL() { return std::string(kWebsite) + "/review"; }
std::string AppInfo::shareFromInvitationCard() { return std::string(kWebsite) + "?from=invitation"; }
std::string AppInfo::shareFromSettingsURL() { return std::string(kWebsite) + "?from=settings"; }
std::string AppInfo::shareFromYearWrapURL() { return std::string(kWebsite) + "?from=year"; }
std::string AppInfo::privacyPolicyURL() { return page("/privacy"); }
std::string AppInfo::termsOfUse() { return page("/terms"); }
std::string AppInfo::securityURL() { return page("/security"); }
std::string AppInfo::faqs() { return page("/faq"); }
std::string AppInfo::whitelistFAQs() { return page("/faq#allowed-apps"); }
std::string AppInfo::socialAccountURL() { return std::string(isAtChina() ? kWebsiteChinese : kWebsite) + "/community"; }
std::string AppInfo::chatServiceAccountName() { return kChatServiceAccountName; }
std::string AppInfo::feedbackEmail() { return kFeedbackEmail; }

}  // namespace tarnwell
