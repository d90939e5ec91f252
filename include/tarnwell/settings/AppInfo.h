// AppInfo: what the running build says about itself, and the app's links.
//
// The locale facts are decided once per Environment; the version texts come
// from the bundle at each read. The links are configuration of this project
// and not computed from anything; a few have a second value for users in
// China or reading Chinese.

#pragma once

#include <string>

namespace tarnwell {

class AppInfo {
 public:
  AppInfo() = delete;

  // The locale's region contains "CN".
  static bool isAtChina();
  // The locale's language contains "zh".
  static bool isChineseLanguage();
  // The most preferred language contains "zh-Hans" ("zh-Hant"); false without languages.
  static bool isSimplifiedChinese();
  static bool isTriditionalChinese();

  // The bundle's localized display name, else its display name, else "Tarnwell".
  static std::string displayName();
  // "CFBundleShortVersionString", or "Unknown version".
  static std::string versionString();
  // "CFBundleVersion", or "Unknown Build".
  static std::string buildString();

  static std::string appStoreId();
  static std::string appStoreURL();
  static std::string appStorerReviewURL();
  static std::string shareFromInvitationCard();
  static std::string shareFromSettingsURL();
  static std::string shareFromYearWrapURL();
  static std::string privacyPolicyURL();
  static std::string termsOfUse();
  static std::string securityURL();
  static std::string faqs();
  static std::string whitelistFAQs();
  static std::string socialAccountURL();
  static std::string chatServiceAccountName();
  static std::string feedbackEmail();
};

}  // namespace tarnwell
