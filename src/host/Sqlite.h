// Owners of SQLite handles and a connection to one settings database with its statements.
#ifndef VESKAN_HOST_SQLITE_H
#define VESKAN_HOST_SQLITE_H

#include <sqlite3.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>

namespace Veskan {
// Apart from the library's other Detail classes: one of them is a Connection too.
namespace Sqlite {

struct DatabaseCloser {
  void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
};
struct StatementFinalizer {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using DatabasePtr = std::unique_ptr<sqlite3, DatabaseCloser>;
using StatementPtr = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

// The statements of the settings store, prepared once per connection.
enum class Sql {
  ReadValue,
  HasKey,
  AddKey,
  WriteValue,
  DeleteValue,
  DeleteKeys,
  DeleteKeyValues,
  KeysUnder,
  ValuesUnder,
  Count
};

// A statement in use: its parameters bound through it; reset and unbound when it goes.
class StatementUse {
 public:
  explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;
  ~StatementUse() {
    if (statement_) {
      sqlite3_reset(statement_);
      sqlite3_clear_bindings(statement_);
    }
  }
  explicit operator bool() const { return statement_ != nullptr; }
  sqlite3_stmt* get() const { return statement_; }
  void Bind(int index, std::string_view text) {
    sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  void Bind(int index, sqlite3_int64 number) { sqlite3_bind_int64(statement_, index, number); }
  // Binds ?1, ?2, ... to `texts` in order; nothing when the statement did not prepare.
  template <typename... Texts>
  void BindTexts(const Texts&... texts) {
    if (!statement_) return;
    int index = 0;
    (Bind(++index, texts), ...);
  }
  // SQLITE_ROW, SQLITE_DONE or an error code.
  int Step() { return sqlite3_step(statement_); }
  std::string Text(int column) const {
    const auto* text = sqlite3_column_text(statement_, column);
    return text ? std::string(reinterpret_cast<const char*>(text),
                              static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                : std::string();
  }
  sqlite3_int64 Integer(int column) const { return sqlite3_column_int64(statement_, column); }

 private:
  sqlite3_stmt* statement_;
};

// One open database, used by one thread at a time.
class Connection {
 public:
  // Opens the database at `path` (creating it when `create`); null with SQLite's result code in
  // `code` when it cannot be opened.
  static std::unique_ptr<Connection> Open(const std::string& path, bool create, int& code);

  sqlite3* Database() const { return database_.get(); }
  // The prepared statement (null with the error left on the connection when it cannot be
  // prepared, as when the database holds no settings yet).
  sqlite3_stmt* Statement(Sql which);
  // Runs `sql` (no rows); SQLite's result code.
  int Execute(const char* sql);
  // Makes the tables unless this connection has seen them.
  int EnsureSchema();
  bool ReadOnly() const { return sqlite3_db_readonly(database_.get(), "main") == 1; }
  // Lets SQLite wait up to `milliseconds` for a lock; changed only when it differs.
  void WaitWhileBusy(int milliseconds) {
    if (milliseconds == busyTimeoutMs_) return;
    sqlite3_busy_timeout(database_.get(), milliseconds);
    busyTimeoutMs_ = milliseconds;
  }

 private:
  explicit Connection(DatabasePtr database) : database_(std::move(database)) {}

  DatabasePtr database_;
  // Declared after the database: finalized before it closes.
  std::array<StatementPtr, static_cast<std::size_t>(Sql::Count)> statements_;
  bool schemaReady_ = false;
  int busyTimeoutMs_ = -1;
};

}  // namespace Sqlite
}  // namespace Veskan

#endif
