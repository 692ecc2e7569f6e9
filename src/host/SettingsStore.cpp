// SettingsStore: hives of settings in SQLite databases, with a pool of connections per database.
#include <veskan/SettingsStore.h>

#include <veskan/Logger.h>

#include "host/Sqlite.h"
#include "sys/Path.h"

#include <unicode/unistr.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace Veskan {

namespace Detail {

using Sqlite::Connection;
using Sqlite::Sql;
using Sqlite::StatementUse;

namespace {

// Folds plain ASCII, as nearly every key and name is, without ICU, in one pass: the length
// written to `folded`, or -1 for text that is not ASCII or longer than the buffer. `emptyName`
// tells whether, read as a path, the text has an empty name (a leading, trailing or doubled
// backslash).
template <std::size_t Capacity>
std::ptrdiff_t FoldAscii(const char16_t* text, char (&folded)[Capacity], bool& emptyName) {
  std::size_t length = 0;
  char16_t previous = u'\\';
  for (char16_t c; text && (c = text[length]) != 0; ++length) {
    if (c >= 0x80 || length == Capacity) return -1;
    emptyName |= c == u'\\' && previous == u'\\';
    folded[length] = static_cast<char>(c >= u'A' && c <= u'Z' ? c - u'A' + u'a' : c);
    previous = c;
  }
  emptyName |= previous == u'\\' && length > 0;
  return static_cast<std::ptrdiff_t>(length);
}

std::string Utf8(const char16_t* text) {
  std::string utf8;
  if (text) icu::UnicodeString(true, text, -1).toUTF8String(utf8);  // an alias, not a copy
  return utf8;
}

std::atomic<int> busyTimeoutMs{5000};
thread_local std::string lastError;

bool IsBusy(int code) {
  return (code & 0xff) == SQLITE_BUSY || (code & 0xff) == SQLITE_LOCKED;
}

}  // namespace

// The idle connections of one database, and the failures already logged for it.
class SettingsPool {
 public:
  explicit SettingsPool(std::string path) : path_(std::move(path)) {}

  std::unique_ptr<Connection> Take(bool create, int& code) {
    if (held.pool == this && held.connection) {
      code = SQLITE_OK;
      return std::move(held.connection);
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!idle_.empty()) {
        std::unique_ptr<Connection> connection = std::move(idle_.back());
        idle_.pop_back();
        code = SQLITE_OK;
        return connection;
      }
    }
    if (!create && !Sys::PathExists(path_)) {
      code = NotThere;
      return nullptr;
    }
    if (create) {
      const std::size_t slash = path_.rfind('/');
      int error = 0;
      if (slash != std::string::npos && slash > 0 &&
          !Sys::MakeFolders(path_.substr(0, slash), error)) {
        code = SQLITE_CANTOPEN;
        return nullptr;
      }
    }
    return Connection::Open(path_, create, code);
  }

  // Take's code for a database that does not exist yet (when not asked to create it): nothing
  // written yet, not a failure worth a line.
  static constexpr int NotThere = SQLITE_NOTFOUND;

  void Give(std::unique_ptr<Connection> connection) {
    if (!held.connection) {
      held.pool = this;
      held.connection = std::move(connection);
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < MaxIdle) idle_.push_back(std::move(connection));
  }

  // Logs a failure unless one of its kind was logged since the last success.
  void Failed(const char* operation, int code, sqlite3* database) {
    lastError = path_ + ": " + sqlite3_errstr(code);
    if (database && sqlite3_errcode(database) != SQLITE_OK &&
        std::strcmp(sqlite3_errmsg(database), sqlite3_errstr(code)) != 0)
      lastError += std::string(" (") + sqlite3_errmsg(database) + ")";
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!logged_.insert(code & 0xff).second) return;
      anyLogged_ = true;
    }
    Logger::Line(Logger::Severity::Warning, operation) << " database:" << lastError;
  }

  void Succeeded() {
    if (!anyLogged_.load(std::memory_order_relaxed)) return;
    std::lock_guard<std::mutex> lock(mutex_);
    logged_.clear();
    anyLogged_ = false;
  }

  const std::string& Path() const { return path_; }

 private:
  // Each thread keeps the connection it used last out of the pool: the next operation of the
  // thread, nearly always on the same database, takes it without a lock.
  struct Held {
    SettingsPool* pool = nullptr;
    std::unique_ptr<Connection> connection;
  };
  static thread_local Held held;

  static constexpr std::size_t MaxIdle = 8;
  const std::string path_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Connection>> idle_;
  std::set<int> logged_;
  std::atomic<bool> anyLogged_{false};
};

thread_local SettingsPool::Held SettingsPool::held;

namespace {

// The pool of the database at `path`. Pools are never destroyed: settings may be read while the
// process's statics are destroyed, and a store refers to its pool.
SettingsPool& PoolOf(std::string_view path) {
  // Each thread remembers the pool it used last: a process nearly always uses one hive.
  thread_local SettingsPool* last = nullptr;
  if (last && last->Path() == path) return *last;
  static std::mutex* const mutex = new std::mutex;
  static auto* const pools = new std::map<std::string, std::unique_ptr<SettingsPool>, std::less<>>;
  std::lock_guard<std::mutex> lock(*mutex);
  auto found = pools->find(path);
  if (found == pools->end())
    found =
        pools->emplace(std::string(path), std::make_unique<SettingsPool>(std::string(path))).first;
  last = found->second.get();
  return *last;
}

// A connection taken from a pool for one operation, retried while the database is busy until
// the time-out: SQLite waits for locks itself, but a few of its busy answers come at once.
class Operation {
 public:
  Operation(SettingsPool& pool, const char* name)
      : pool_(pool),
        name_(name),
        deadline_(std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(busyTimeoutMs.load())) {
    lastError.clear();
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  ~Operation() {
    if (connection_) pool_.Give(std::move(connection_));
  }

  // Runs `work(connection)`, which gives SQLite's result code, again while it is busy; logs a
  // failure. False when the connection cannot be had or the work fails.
  template <typename Work>
  bool Run(bool create, Work&& work) {
    int code = SQLITE_OK;
    for (bool first = true;; first = false) {
      if (!connection_) connection_ = pool_.Take(create, code);
      if (connection_) {
        connection_->WaitWhileBusy(first ? busyTimeoutMs.load() : RemainingMs());
        code = work(*connection_);
        if (code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW) {
          pool_.Succeeded();
          return true;
        }
      }
      if (!IsBusy(code) || RemainingMs() == 0) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (code != SettingsPool::NotThere)
      pool_.Failed(name_, code, connection_ ? connection_->Database() : nullptr);
    // A connection that failed is not kept: its file may be gone or replaced.
    connection_.reset();
    return false;
  }

 private:
  int RemainingMs() const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline_ - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
  }

  SettingsPool& pool_;
  const char* name_;
  const std::chrono::steady_clock::time_point deadline_;
  std::unique_ptr<Connection> connection_;
};

// A transaction that rolls back unless committed.
class WriteTransaction {
 public:
  explicit WriteTransaction(Connection& connection) : connection_(connection) {
    code_ = connection_.Execute("BEGIN IMMEDIATE");
    if (code_ == SQLITE_OK) code_ = connection_.EnsureSchema();
    open_ = true;
  }
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;
  ~WriteTransaction() {
    if (open_) connection_.Execute("ROLLBACK");
  }
  int Code() const { return code_; }
  int Commit() {
    code_ = connection_.Execute("COMMIT");
    open_ = code_ != SQLITE_OK;
    return code_;
  }

 private:
  Connection& connection_;
  int code_;
  bool open_ = false;
};

// A failed statement's code: what step gave, or the connection's error when it did not prepare.
int StepCode(Connection& connection, StatementUse& use) {
  return use ? use.Step() : sqlite3_extended_errcode(connection.Database());
}

// Adds the key and each of its parents; SQLite's result code.
int AddKeys(Connection& connection, const std::string& folded, const std::string& path) {
  // The folded path and the spelling have the same number of names.
  std::size_t foldedEnd = 0;
  std::size_t pathEnd = 0;
  for (;;) {
    foldedEnd = folded.find('\\', foldedEnd);
    pathEnd = path.find('\\', pathEnd);
    StatementUse add(connection.Statement(Sql::AddKey));
    if (!add) return sqlite3_extended_errcode(connection.Database());
    const std::string foldedPart = folded.substr(0, foldedEnd);
    const std::string pathPart = path.substr(0, pathEnd);
    add.BindTexts(foldedPart, pathPart);
    const int code = add.Step();
    if (code != SQLITE_DONE) return code;
    if (foldedEnd == std::string::npos || pathEnd == std::string::npos) return SQLITE_OK;
    ++foldedEnd;
    ++pathEnd;
  }
}

int WriteValue(Connection& connection, const std::string& key, const SettingsStore::Value& value) {
  StatementUse write(connection.Statement(Sql::WriteValue));
  if (!write) return sqlite3_extended_errcode(connection.Database());
  const std::string folded = SettingsStore::Folded(value.name);
  write.Bind(1, key);
  write.Bind(2, folded);
  write.Bind(3, value.name);
  write.Bind(4, static_cast<sqlite3_int64>(value.type));
  if (value.type == SettingsStore::Type::Dword)
    write.Bind(5, static_cast<sqlite3_int64>(value.dword));
  else
    write.Bind(5, value.text);
  return write.Step();
}

// The names of a path, empty ones skipped, joined again by single backslashes.
std::string CleanPath(const std::string& key) {
  std::string clean;
  std::size_t start = 0;
  while (start <= key.size()) {
    std::size_t end = key.find('\\', start);
    if (end == std::string::npos) end = key.size();
    if (end > start) {
      if (!clean.empty()) clean += '\\';
      clean.append(key, start, end - start);
    }
    start = end + 1;
  }
  return clean;
}

// Binds ?1 to the folded path and ?2, ?3 to the bounds of its descendants.
void BindSubtree(StatementUse& use, const std::string& folded, std::string& low,
                 std::string& high) {
  low = folded.empty() ? std::string() : folded + "\\";
  high = folded.empty() ? std::string("\xff") : folded + "]";
  use.BindTexts(folded, low, high);
}

SettingsStore::Value ValueFrom(StatementUse& use, int typeColumn, int dataColumn) {
  SettingsStore::Value value;
  value.type = use.Integer(typeColumn) == static_cast<int>(SettingsStore::Type::Dword)
                   ? SettingsStore::Type::Dword
                   : SettingsStore::Type::String;
  if (value.type == SettingsStore::Type::Dword)
    value.dword = static_cast<std::uint32_t>(use.Integer(dataColumn));
  else
    value.text = use.Text(dataColumn);
  return value;
}

}  // namespace
}  // namespace Detail

using Sqlite::Connection;
using Sqlite::Sql;
using Sqlite::StatementUse;

std::string SettingsStore::HivePath(Hive hive) {
  return SettingsStore(hive).DatabasePath();
}

std::string SettingsStore::DefaultHivePath(Hive hive) {
  if (hive == Hive::Machine) return "/var/lib/veskan/registry.db";
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/')
    return std::string(config) + "/veskan/registry.db";
  return Sys::HomeFolder() + "/.config/veskan/registry.db";
}

SettingsStore::SettingsStore(std::string databasePath) : pool_(&Detail::PoolOf(databasePath)) {}

const std::string& SettingsStore::DatabasePath() const {
  return pool_->Path();
}

std::string SettingsStore::LastError() {
  return Detail::lastError;
}

int SettingsStore::BusyTimeoutMs() {
  return Detail::busyTimeoutMs.load();
}

void SettingsStore::SetBusyTimeoutMs(int milliseconds) {
  Detail::busyTimeoutMs.store(milliseconds < 0 ? 0 : milliseconds);
}

std::string SettingsStore::Folded(const std::string& text) {
  // Plain ASCII, as nearly every key and name is, folds to its lower case.
  if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; })) {
    std::string folded(text);
    for (char& c : folded)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return folded;
  }
  std::string folded;
  icu::UnicodeString::fromUTF8(text).foldCase().toUTF8String(folded);
  return folded;
}

std::string SettingsStore::FoldedPath(const std::string& key) {
  return Folded(Detail::CleanPath(key));
}

SettingsStore::SettingsStore(Hive hive) {
  // The environment is read on every call (a test or a tool may change it), the default paths
  // are worked out once per thread.
  const char* variable = hive == Hive::Machine ? "VESKAN_MACHINE_REGISTRY" : "VESKAN_USER_REGISTRY";
  if (const char* path = std::getenv(variable); path && *path) {
    pool_ = &Detail::PoolOf(path);
    return;
  }
  thread_local std::string defaults[2];
  std::string& known = defaults[hive == Hive::Machine ? 0 : 1];
  if (known.empty()) known = DefaultHivePath(hive);
  pool_ = &Detail::PoolOf(known);
}

bool SettingsStore::Read(const std::string& key, const std::string& name, Value& value) const {
  if (!ReadFolded(FoldedPath(key), Folded(name), value)) return false;
  value.name = name;
  return true;
}

bool SettingsStore::Read(const char16_t* key, const char16_t* name, Value& value) const {
  // Settings are read far more often than written, by names in plain ASCII: folded on the
  // stack, without converting them to UTF-8 first.
  char foldedKey[256];
  char foldedName[128];
  bool emptyName = false;
  bool unused = false;
  const std::ptrdiff_t keyLength = Detail::FoldAscii(key, foldedKey, emptyName);
  const std::ptrdiff_t nameLength = Detail::FoldAscii(name, foldedName, unused);
  if (keyLength < 0 || emptyName || nameLength < 0)
    return Read(Detail::Utf8(key), Detail::Utf8(name), value);
  if (!ReadFolded(std::string_view(foldedKey, static_cast<std::size_t>(keyLength)),
                  std::string_view(foldedName, static_cast<std::size_t>(nameLength)), value))
    return false;
  value.name.assign(name, name + nameLength);  // plain ASCII
  return true;
}

bool SettingsStore::ReadFolded(std::string_view foldedKey, std::string_view foldedName,
                               Value& value) const {
  Detail::Operation operation(*pool_, "Veskan::SettingsStore::Read");
  bool found = false;
  const bool ran = operation.Run(false, [&](Connection& connection) {
    StatementUse read(connection.Statement(Sql::ReadValue));
    read.BindTexts(foldedKey, foldedName);
    const int code = Detail::StepCode(connection, read);
    if (code == SQLITE_ROW) {
      value = Detail::ValueFrom(read, 0, 1);
      found = true;
    }
    return code;
  });
  return ran && found;
}

bool SettingsStore::Write(const std::string& key, const std::string& name,
                          const Value& value) const {
  const std::string clean = Detail::CleanPath(key);
  const std::string folded = Folded(clean);
  Value named = value;
  named.name = name;
  Detail::Operation operation(*pool_, "Veskan::SettingsStore::Write");
  return operation.Run(true, [&](Connection& connection) {
    Detail::WriteTransaction transaction(connection);
    int code = transaction.Code();
    if (code == SQLITE_OK) code = Detail::AddKeys(connection, folded, clean);
    if (code == SQLITE_OK) code = Detail::WriteValue(connection, folded, named);
    return code == SQLITE_DONE ? transaction.Commit() : code;
  });
}

bool SettingsStore::DeleteValue(const std::string& key, const std::string& name) const {
  const std::string folded = FoldedPath(key);
  const std::string foldedName = Folded(name);
  Detail::Operation operation(*pool_, "Veskan::SettingsStore::DeleteValue");
  bool removed = false;
  const bool ran = operation.Run(false, [&](Connection& connection) {
    StatementUse remove(connection.Statement(Sql::DeleteValue));
    remove.BindTexts(folded, foldedName);
    const int code = Detail::StepCode(connection, remove);
    removed = code == SQLITE_DONE && sqlite3_changes(connection.Database()) > 0;
    return code;
  });
  return ran && removed;
}

bool SettingsStore::DeleteKey(const std::string& key) const {
  const std::string folded = FoldedPath(key);
  if (folded.empty()) return false;  // the hive's root stays
  Detail::Operation operation(*pool_, "Veskan::SettingsStore::DeleteKey");
  bool removed = false;
  const bool ran = operation.Run(false, [&](Connection& connection) {
    Detail::WriteTransaction transaction(connection);
    int code = transaction.Code();
    std::string low;
    std::string high;
    for (Sql which : {Sql::DeleteKeyValues, Sql::DeleteKeys}) {
      if (code != SQLITE_OK) break;
      StatementUse remove(connection.Statement(which));
      Detail::BindSubtree(remove, folded, low, high);
      code = Detail::StepCode(connection, remove);
      if (which == Sql::DeleteKeys) removed = sqlite3_changes(connection.Database()) > 0;
      if (code == SQLITE_DONE) code = SQLITE_OK;
    }
    return code == SQLITE_OK ? transaction.Commit() : code;
  });
  return ran && removed;
}

bool SettingsStore::HasKey(const std::string& key) const {
  const std::string folded = FoldedPath(key);
  if (folded.empty()) return true;
  Detail::Operation operation(*pool_, "Veskan::SettingsStore::HasKey");
  bool found = false;
  const bool ran = operation.Run(false, [&](Connection& connection) {
    StatementUse has(connection.Statement(Sql::HasKey));
    has.BindTexts(folded);
    const int code = Detail::StepCode(connection, has);
    found = code == SQLITE_ROW;
    return code;
  });
  return ran && found;
}

bool SettingsStore::ListSubkeys(const std::string& key, std::vector<std::string>& names) const {
  names.clear();
  std::vector<Key> keys;
  if (!Export(key, keys)) return false;
  // A direct subkey has one name more than the key.
  const auto depth = [](const std::string& path) {
    return path.empty() ? 0 : std::count(path.begin(), path.end(), '\\') + 1;
  };
  const auto childDepth = depth(Detail::CleanPath(key)) + 1;
  for (const Key& found : keys)
    if (depth(found.path) == childDepth)
      names.push_back(found.path.substr(found.path.rfind('\\') + 1));
  return true;
}

bool SettingsStore::Export(const std::string& key, std::vector<Key>& keys) const {
  keys.clear();
  const std::string folded = FoldedPath(key);
  Detail::Operation operation(*pool_, "Veskan::SettingsStore::Export");
  const bool ran = operation.Run(false, [&](Connection& connection) {
    keys.clear();
    // One read transaction: the keys and values of one moment.
    int code = connection.Execute("BEGIN");
    std::map<std::string, std::size_t> index;  // folded path to its place in `keys`
    std::string low;
    std::string high;
    if (folded.empty()) {
      keys.push_back(Key{});
      index[std::string()] = 0;
    }
    if (code == SQLITE_OK) {
      StatementUse list(connection.Statement(Sql::KeysUnder));
      Detail::BindSubtree(list, folded, low, high);
      while ((code = Detail::StepCode(connection, list)) == SQLITE_ROW) {
        index[list.Text(0)] = keys.size();
        keys.push_back(Key{list.Text(1), {}});
      }
    }
    if (code == SQLITE_DONE) {
      StatementUse values(connection.Statement(Sql::ValuesUnder));
      Detail::BindSubtree(values, folded, low, high);
      while ((code = Detail::StepCode(connection, values)) == SQLITE_ROW) {
        auto owner = index.find(values.Text(0));
        if (owner == index.end()) continue;
        Value value = Detail::ValueFrom(values, 2, 3);
        value.name = values.Text(1);
        keys[owner->second].values.push_back(std::move(value));
      }
    }
    connection.Execute("COMMIT");
    return code;
  });
  if (!ran || keys.empty()) {
    keys.clear();
    return false;
  }
  return true;
}

bool SettingsStore::Import(const std::vector<Key>& keys) const {
  Detail::Operation operation(*pool_, "Veskan::SettingsStore::Import");
  return operation.Run(true, [&](Connection& connection) {
    Detail::WriteTransaction transaction(connection);
    int code = transaction.Code();
    for (const Key& key : keys) {
      const std::string clean = Detail::CleanPath(key.path);
      const std::string folded = Folded(clean);
      if (code == SQLITE_OK && !clean.empty()) code = Detail::AddKeys(connection, folded, clean);
      for (const Value& value : key.values) {
        if (code != SQLITE_OK) break;
        code = Detail::WriteValue(connection, folded, value);
        if (code == SQLITE_DONE) code = SQLITE_OK;
      }
    }
    return code == SQLITE_OK ? transaction.Commit() : code;
  });
}

}  // namespace Veskan
