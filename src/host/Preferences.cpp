// Preferences: the shared settings read and written through the hives' SettingsStore.
#include <veskan/Preferences.h>

#include <veskan/SettingsStore.h>
#include <veskan/Timepoint.h>

#include "sys/Path.h"

#include <cstdlib>
#include <string_view>

namespace Veskan {

namespace {

// Whether `store` names the settings databases; no other store is reached.
bool Reaches(const char16_t* store) {
  if (store == Preferences::File) return true;
  const char16_t* expected = Preferences::File;
  for (; store && *store == *expected; ++store, ++expected)
    if (!*expected) return true;
  return false;
}

std::string Utf8(const char16_t* text) {
  std::string utf8;
  // An alias of the caller's text, not a copy.
  if (text) icu::UnicodeString(true, text, -1).toUTF8String(utf8);
  return utf8;
}

SettingsStore Hive(bool perUser) {
  return SettingsStore(perUser ? SettingsStore::Hive::User : SettingsStore::Hive::Machine);
}

bool Read(bool perUser, const char16_t* keyPath, const char16_t* valueName, const char16_t* store,
          SettingsStore::Value& value) {
  return Reaches(store) && Hive(perUser).Read(keyPath, valueName, value);
}

}  // namespace

int Preferences::ReadIntegerValue(bool perUser, const char16_t* keyPath, const char16_t* valueName,
                                  const char16_t* store, int defaultValue) {
  SettingsStore::Value value;
  if (!Read(perUser, keyPath, valueName, store, value) || value.type != SettingsStore::Type::Dword)
    return defaultValue;
  return static_cast<int>(value.dword);
}

bool Preferences::WriteIntegerValue(bool perUser, const char16_t* keyPath,
                                    const char16_t* valueName, const char16_t* store, int value) {
  if (!Reaches(store)) return false;
  SettingsStore::Value dword;
  dword.type = SettingsStore::Type::Dword;
  dword.dword = static_cast<std::uint32_t>(value);
  return Hive(perUser).Write(Utf8(keyPath), Utf8(valueName), dword);
}

StringBuffer Preferences::ReadStringValue(bool perUser, const char16_t* keyPath,
                                          const char16_t* valueName, const char16_t* store,
                                          const char16_t* defaultValue) {
  SettingsStore::Value value;
  if (!Read(perUser, keyPath, valueName, store, value) || value.type != SettingsStore::Type::String)
    return StringBuffer(defaultValue ? defaultValue : u"");
  return UTF8to16(value.text.c_str(), 0, static_cast<int>(value.text.size()));
}

bool Preferences::WriteStringValue(bool perUser, const char16_t* keyPath, const char16_t* valueName,
                                   const char16_t* store, const char16_t* value) {
  if (!Reaches(store)) return false;
  SettingsStore::Value text;
  text.text = Utf8(value);
  return Hive(perUser).Write(Utf8(keyPath), Utf8(valueName), text);
}

StringBuffer Preferences::ProductKey(const char16_t* key) {
  StringBuffer path(Path);
  if (key && *key) path += StringBuffer(u"\\") + StringBuffer(key);
  return path;
}

StringBuffer Preferences::SoftwareService::GetUri() {
  const int port =
      ReadIntegerValue(true, SoftwareServicePath, CurrentBasePort, File, DefaultHttpPort);
  return StringBuffer(u"http://localhost:") + UTF8to16(std::to_string(port).c_str());
}

StringBuffer Preferences::SoftwareService::GetLogFilePath() {
  const StringBuffer name = ReadStringValue(false, SoftwareServicePath, TransactionLogFile, File,
                                            DefaultTransactionLogFileName);
  if (name.startsWith(u"/")) return name;
  std::string folder;
  if (const char* logs = std::getenv("VESKAN_LOG_DIR"); logs && *logs == '/')
    folder = logs;
  else if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state == '/')
    folder = std::string(state) + "/veskan";
  else
    folder = Sys::HomeFolder() + "/.local/state/veskan";
  return UTF8to16((folder + "/").c_str()) + name;
}

StringBuffer Preferences::SoftwareService::GetNewLogFilePath(const char16_t* path) {
  StringBuffer current(path ? path : u"");
  // ':' is awkward in file names on other systems the logs may be copied to.
  StringBuffer stamp = CurrentTimestamp(0, TimestampStyles::Iso8601);
  stamp.findAndReplace(u":", u"-");
  const int folderEnd = current.lastIndexOf(u'/');
  const int dot = current.lastIndexOf(u'.');
  if (dot > folderEnd + 1)  // an extension, not a leading dot
    return StringBuffer(current.tempSubString(0, dot)) + StringBuffer(u".") + stamp +
           StringBuffer(current.tempSubString(dot));
  return current + StringBuffer(u".") + stamp;
}

const char16_t* Preferences::HardwareService::RfChEdRatings::ToString(int rating) {
  switch (rating) {
    case Poor:
      return u"Poor";
    case Good:
      return u"Good";
    case Excellent:
      return u"Excellent";
    default:
      return u"Unknown";
  }
}

Preferences::HardwareService::RfChEdRatings::Enumeration
Preferences::HardwareService::GetRfChEdRating(const char16_t* value, const char16_t* thresholds) {
  if (!value || !*value) return RfChEdRatings::Unknown;
  StringList parts;
  if (Tokenize(thresholds ? thresholds : u"", parts, u" ") != 2) return RfChEdRatings::Unknown;
  const int measured = ParseInteger(value);
  const StringList& read = parts;
  if (measured < ParseInteger(read[0])) return RfChEdRatings::Excellent;
  return measured < ParseInteger(read[1]) ? RfChEdRatings::Good : RfChEdRatings::Poor;
}

int Preferences::Settings::GetPoorSignalStrength() {
  static const int strength = ReadIntegerValue(true, ProductKey(Key).c_str(), PoorSignalStrength,
                                               File, DefaultPoorSignalStrength);
  return strength;
}

}  // namespace Veskan
