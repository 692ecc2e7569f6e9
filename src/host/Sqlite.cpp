// The settings store's SQL and its connections.
#include "host/Sqlite.h"

namespace Veskan {
namespace Sqlite {

namespace {

// Keys hold their folded path (compared) and their first spelling (shown); values are keyed by
// their key's folded path and their folded name.
constexpr const char* Schema =
    "CREATE TABLE IF NOT EXISTS settings_keys("
    "folded TEXT PRIMARY KEY, path TEXT NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS settings_values("
    "key TEXT NOT NULL, folded TEXT NOT NULL, name TEXT NOT NULL, type INTEGER NOT NULL, "
    "data NOT NULL, PRIMARY KEY(key, folded)) WITHOUT ROWID;";

// In Sql's order. Ranges ?2 to ?3 are a key's descendants: the folded path followed by "\" up to
// the same path followed by "]", the character after the backslash.
constexpr const char* Statements[] = {
    "SELECT type, data FROM settings_values WHERE key = ?1 AND folded = ?2",
    "SELECT 1 FROM settings_keys WHERE folded = ?1",
    "INSERT INTO settings_keys(folded, path) VALUES(?1, ?2) ON CONFLICT(folded) DO NOTHING",
    "INSERT INTO settings_values(key, folded, name, type, data) VALUES(?1, ?2, ?3, ?4, ?5) "
    "ON CONFLICT(key, folded) DO UPDATE SET type = excluded.type, data = excluded.data",
    "DELETE FROM settings_values WHERE key = ?1 AND folded = ?2",
    "DELETE FROM settings_keys WHERE folded = ?1 OR (folded > ?2 AND folded < ?3)",
    "DELETE FROM settings_values WHERE key = ?1 OR (key > ?2 AND key < ?3)",
    "SELECT folded, path FROM settings_keys WHERE folded = ?1 OR (folded > ?2 AND folded < ?3) "
    "ORDER BY folded",
    "SELECT key, name, type, data FROM settings_values WHERE key = ?1 OR (key > ?2 AND key < ?3) "
    "ORDER BY key, folded",
};
static_assert(sizeof(Statements) / sizeof(Statements[0]) == static_cast<std::size_t>(Sql::Count),
              "one text per statement");

}  // namespace

std::unique_ptr<Connection> Connection::Open(const std::string& path, bool create, int& code) {
  sqlite3* opened = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0) |
                    SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  code = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
  DatabasePtr database(opened);  // a handle comes even when the open fails
  if (code != SQLITE_OK) return nullptr;
  std::unique_ptr<Connection> connection(new Connection(std::move(database)));
  if (!connection->ReadOnly()) {
    // Readers never wait for writers.
    connection->Execute("PRAGMA journal_mode=WAL");
    // Safe against a crash of the process; a power cut may lose the last writes, never half of
    // one.
    connection->Execute("PRAGMA synchronous=NORMAL");
    // The write-ahead log and its index stay when the last connection closes: a user who may
    // not write the hive's folder can only read a WAL database whose files are already there.
    int persist = 1;
    sqlite3_file_control(connection->Database(), "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
  }
  return connection;
}

sqlite3_stmt* Connection::Statement(Sql which) {
  StatementPtr& slot = statements_[static_cast<std::size_t>(which)];
  if (!slot) {
    sqlite3_stmt* prepared = nullptr;
    sqlite3_prepare_v3(database_.get(), Statements[static_cast<std::size_t>(which)], -1,
                       SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    slot.reset(prepared);
  }
  return slot.get();
}

int Connection::Execute(const char* sql) {
  return sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr);
}

int Connection::EnsureSchema() {
  if (schemaReady_) return SQLITE_OK;
  const int code = Execute(Schema);
  schemaReady_ = code == SQLITE_OK;
  return code;
}

}  // namespace Sqlite
}  // namespace Veskan
