// SettingsStore: one hive of settings, a tree of keys holding named DWORD and string values,
// kept in an SQLite database that several processes read and write at once.
#ifndef VESKAN_SETTINGSSTORE_H
#define VESKAN_SETTINGSSTORE_H

#include <veskan/Export.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Veskan {

namespace Detail {
class SettingsPool;
}

// A hive's database. Key paths are names separated by backslashes (empty names are skipped, so
// "\A\\B\" is "A\B"; "" is the hive's root); paths and value names compare without regard to
// case (full Unicode case folding) and keep the spelling they were first written with. Texts are
// UTF-8.
//
// Every write is one transaction: a value is either wholly there or not at all. A database that
// another process holds locked is waited for up to BusyTimeoutMs(); past that, and on any other
// failure (a missing, corrupt or read-only database, a folder that cannot be written), reads
// find nothing and writes give false, and the failure is logged at Warning once per database
// and kind of failure until an operation on that database succeeds again.
//
// Thread safety: any thread, any number of processes. Connections are pooled per database, so
// an operation does not open the file.
class VESKAN_API SettingsStore {
 public:
  enum class Hive { Machine, User };
  // The registry's own type numbers.
  enum class Type : int { String = 1, Dword = 4 };

  struct Value {
    std::string name;
    Type type = Type::String;
    std::uint32_t dword = 0;
    std::string text;
  };
  struct Key {
    std::string path;
    std::vector<Value> values;  // in order of their folded names
  };

  // The database of `hive` as the environment names it now: $VESKAN_MACHINE_REGISTRY or
  // /var/lib/veskan/registry.db; $VESKAN_USER_REGISTRY or $XDG_CONFIG_HOME/veskan/registry.db
  // (~/.config when XDG_CONFIG_HOME is unset).
  static std::string HivePath(Hive hive);
  explicit SettingsStore(Hive hive);
  explicit SettingsStore(std::string databasePath);

  const std::string& DatabasePath() const;

  // The value, or false when the key or value is missing or the database cannot be read.
  bool Read(const std::string& key, const std::string& name, Value& value) const;
  // Read with the key and name in UTF-16 (null: empty), as the settings' names are kept.
  bool Read(const char16_t* key, const char16_t* name, Value& value) const;
  // Writes the value (its name is `name`), creating the database, its folder (for the user
  // hive), the key and its parents as needed.
  bool Write(const std::string& key, const std::string& name, const Value& value) const;
  // Removes one value; true when it was there.
  bool DeleteValue(const std::string& key, const std::string& name) const;
  // Removes a key with its values and everything under it; true when it was there.
  bool DeleteKey(const std::string& key) const;
  // Whether the key exists (written, or a parent of one written).
  bool HasKey(const std::string& key) const;
  // The names of the key's direct subkeys, in folded order; false when the key is missing.
  bool ListSubkeys(const std::string& key, std::vector<std::string>& names) const;
  // The key and every key under it with their values, parents before children; false when the
  // key is missing or the database cannot be read.
  bool Export(const std::string& key, std::vector<Key>& keys) const;
  // Writes every key and value in one transaction: all of them or none.
  bool Import(const std::vector<Key>& keys) const;

  // Why the calling thread's last operation failed: "" when it succeeded, or when it found
  // nothing because nothing was there.
  static std::string LastError();

  // How long an operation waits for a database another process holds locked (default 5000).
  static int BusyTimeoutMs();
  static void SetBusyTimeoutMs(int milliseconds);

  // The key path as it is compared: empty names skipped, case folded.
  static std::string FoldedPath(const std::string& key);
  static std::string Folded(const std::string& text);

 private:
  // Where the hive is when the environment does not say.
  static std::string DefaultHivePath(Hive hive);
  bool ReadFolded(std::string_view foldedKey, std::string_view foldedName, Value& value) const;

  // The database's connections; lives as long as the process.
  Detail::SettingsPool* pool_;
};

}  // namespace Veskan

#endif
