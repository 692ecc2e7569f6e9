// Settings reads and writes through Preferences beside the same SQL through raw sqlite3 calls,
// on one database in the folder named by VESKAN_SETTINGS_BENCH_DIR (else /tmp).
//
// The raw side does what a careful sqlite3 user would: one connection in WAL mode with a busy
// time-out, the statements prepared once, the key and name already folded. Run several copies of
// the program at once (bench/settings/run.py) for the rate under contention.
#include <veskan/Preferences.h>
#include <veskan/SettingsStore.h>

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

using Veskan::Preferences;
using Veskan::SettingsStore;

std::string Database(const char* side) {
  const char* folder = std::getenv("VESKAN_SETTINGS_BENCH_DIR");
  return std::string(folder && *folder ? folder : "/tmp") + "/settings-bench-" + side + ".db";
}

// Copies what the write-ahead log holds into the database, so that reads on both sides find
// their pages there whatever was written before (without waiting for other processes' readers).
void Checkpoint(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 5000);
    sqlite3_exec(db, "PRAGMA wal_checkpoint(PASSIVE)", nullptr, nullptr, nullptr);
  }
  sqlite3_close(db);
}

// The library's hive, with the value read already there.
void UseLibraryHive() {
  static const bool ready = [] {
    setenv("VESKAN_MACHINE_REGISTRY", Database("library").c_str(), 1);
    return Preferences::WriteIntegerValue(false, Preferences::SoftwareServicePath, u"HttpPort",
                                          Preferences::File, 8080);
  }();
  (void)ready;
}

// The same table and statements through sqlite3 itself.
class Raw {
 public:
  Raw() {
    sqlite3_open(Database("raw").c_str(), &db_);
    sqlite3_busy_timeout(db_, 5000);
    sqlite3_exec(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                 nullptr);
    sqlite3_exec(db_,
                 "CREATE TABLE IF NOT EXISTS settings_keys(folded TEXT PRIMARY KEY, path TEXT NOT "
                 "NULL) WITHOUT ROWID; CREATE TABLE IF NOT EXISTS settings_values(key TEXT NOT "
                 "NULL, folded TEXT NOT NULL, name TEXT NOT NULL, type INTEGER NOT NULL, data NOT "
                 "NULL, PRIMARY KEY(key, folded)) WITHOUT ROWID;",
                 nullptr, nullptr, nullptr);
    Prepare("SELECT type, data FROM settings_values WHERE key = ?1 AND folded = ?2", &read_);
    Prepare(
        "INSERT INTO settings_keys(folded, path) VALUES(?1, ?2) ON CONFLICT(folded) DO "
        "NOTHING",
        &key_);
    Prepare(
        "INSERT INTO settings_values(key, folded, name, type, data) VALUES(?1, ?2, ?3, ?4, "
        "?5) ON CONFLICT(key, folded) DO UPDATE SET type = excluded.type, data = "
        "excluded.data",
        &value_);
    Write("httpport", nullptr, 8080);
  }
  ~Raw() {
    sqlite3_finalize(read_);
    sqlite3_finalize(key_);
    sqlite3_finalize(value_);
    sqlite3_close(db_);
  }

  int Read(const std::string& name) {
    sqlite3_bind_text(read_, 1, Service.data(), static_cast<int>(Service.size()), SQLITE_STATIC);
    sqlite3_bind_text(read_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    int value = -1;
    if (sqlite3_step(read_) == SQLITE_ROW && sqlite3_column_int(read_, 0) == 4)
      value = sqlite3_column_int(read_, 1);
    sqlite3_reset(read_);
    return value;
  }

  // A string value when `text` is given, else the DWORD `dword`.
  bool Write(const std::string& name, const std::string* text, sqlite3_int64 dword = 0) {
    if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) return false;
    // The key and each of its parents, as the library adds them.
    for (std::size_t end = Service.find('\\');; end = Service.find('\\', end + 1)) {
      const std::string part = Service.substr(0, end);
      sqlite3_bind_text(key_, 1, part.data(), static_cast<int>(part.size()), SQLITE_TRANSIENT);
      sqlite3_bind_text(key_, 2, part.data(), static_cast<int>(part.size()), SQLITE_TRANSIENT);
      sqlite3_step(key_);
      sqlite3_reset(key_);
      if (end == std::string::npos) break;
    }
    sqlite3_bind_text(value_, 1, Service.data(), static_cast<int>(Service.size()), SQLITE_STATIC);
    sqlite3_bind_text(value_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    sqlite3_bind_text(value_, 3, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    sqlite3_bind_int(value_, 4, text ? 1 : 4);
    if (text)
      sqlite3_bind_text(value_, 5, text->data(), static_cast<int>(text->size()), SQLITE_STATIC);
    else
      sqlite3_bind_int64(value_, 5, dword);
    const bool written = sqlite3_step(value_) == SQLITE_DONE;
    sqlite3_reset(value_);
    return sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK && written;
  }

 private:
  void Prepare(const char* sql, sqlite3_stmt** statement) {
    sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, statement, nullptr);
  }

  const std::string Service =
      SettingsStore::FoldedPath(Veskan::StringBuffer(Preferences::SoftwareServicePath).ToUTF8());
  sqlite3* db_ = nullptr;
  sqlite3_stmt* read_ = nullptr;
  sqlite3_stmt* key_ = nullptr;
  sqlite3_stmt* value_ = nullptr;
};

Raw& RawStore() {
  static Raw raw;
  return raw;
}

void Read_Veskan(benchmark::State& state) {
  UseLibraryHive();
  if (Preferences::ReadIntegerValue(false, Preferences::SoftwareServicePath, u"HttpPort",
                                    Preferences::File, 0) != 8080)
    return state.SkipWithError("the library does not read the value written");
  Checkpoint(Database("library"));
  for (auto _ : state)
    benchmark::DoNotOptimize(Preferences::ReadIntegerValue(false, Preferences::SoftwareServicePath,
                                                           u"HttpPort", Preferences::File, 0));
  state.SetItemsProcessed(state.iterations());
}

void Read_SqliteRaw(benchmark::State& state) {
  Raw& raw = RawStore();
  if (raw.Read("httpport") != 8080) return state.SkipWithError("sqlite3 does not read the value");
  Checkpoint(Database("raw"));
  for (auto _ : state)
    benchmark::DoNotOptimize(raw.Read("httpport"));
  state.SetItemsProcessed(state.iterations());
}

// Each process writes values of its own, so that copies run at once contend for the lock only.
void Write_Veskan(benchmark::State& state) {
  UseLibraryHive();
  const Veskan::StringBuffer name = Veskan::UTF8to16(("w" + std::to_string(getpid())).c_str());
  int i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(Preferences::WriteStringValue(
        false, Preferences::SoftwareServicePath, name.c_str(), Preferences::File,
        Veskan::UTF8to16(std::to_string(++i).c_str()).c_str()));
  state.SetItemsProcessed(state.iterations());
}

void Write_SqliteRaw(benchmark::State& state) {
  Raw& raw = RawStore();
  const std::string name = "w" + std::to_string(getpid());
  std::string text;
  int i = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(raw.Write(name, &(text = std::to_string(++i))));
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

// Real time: with several processes on two cores, a process's CPU time is not its rate.
BENCHMARK(Read_Veskan)->Arg(0)->UseRealTime();
BENCHMARK(Read_SqliteRaw)->Arg(0)->UseRealTime();
BENCHMARK(Write_Veskan)->Arg(0)->UseRealTime();
BENCHMARK(Write_SqliteRaw)->Arg(0)->UseRealTime();
BENCHMARK_MAIN();
