#include <quillmere/platform/events/EventBackend.h>
#include <quillmere/platform/events/SQLiteDatabase.h>

#include <cstddef>

namespace quillmere {
namespace {

// Domain of SQLite's own errors; the code is an extended result code.
constexpr const char* sqliteErrorDomain = "SQLiteErrorDomain";

}  // namespace

SQLiteStatement::~SQLiteStatement() {
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

bool SQLiteStatement::step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) database_.fail("used");
  return false;
}

std::optional<std::string> SQLiteStatement::textOrNull(int column) const {
  const auto* text = sqlite3_column_text(statement_, column);
  if (!text) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
}

void SQLiteStatement::bindOne(int parameter, std::int64_t value) {
  if (sqlite3_bind_int64(statement_, parameter, value) != SQLITE_OK) database_.fail("used");
}

void SQLiteStatement::bindOne(int parameter, std::string_view value) {
  // An empty view may have no address, which would be a null.
  const char* const text = value.empty() ? "" : value.data();
  if (sqlite3_bind_text64(statement_, parameter, text, value.size(), SQLITE_STATIC, SQLITE_UTF8) !=
      SQLITE_OK) {
    database_.fail("used");
  }
}

SQLiteDatabase::SQLiteDatabase(const std::string& name, int flags) : name_(name) {
  sqlite3* database = nullptr;
  const int result = sqlite3_open_v2(name.c_str(), &database, flags, nullptr);
  database_.reset(database);
  if (result != SQLITE_OK) fail("opened");
  sqlite3_extended_result_codes(database, 1);
}

SQLiteStatement SQLiteDatabase::statement(const char* sql) {
  auto& prepared = statements_[sql];
  if (!prepared) {
    sqlite3_stmt* made = nullptr;
    if (sqlite3_prepare_v3(handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr) !=
        SQLITE_OK) {
      fail("used");
    }
    prepared.reset(made);
  }
  return SQLiteStatement(*this, prepared.get());
}

void SQLiteDatabase::execute(const std::string& sql) {
  if (sqlite3_exec(handle(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail("used");
}

std::int64_t SQLiteDatabase::pragma(const char* sql) {
  SQLiteStatement query = statement(sql);
  return query.step() ? query.integer(0) : 0;
}

void SQLiteDatabase::fail(const char* operation) const {
  const int code = handle() ? sqlite3_extended_errcode(handle()) : SQLITE_NOMEM;
  const std::string reason = handle() ? sqlite3_errmsg(handle()) : sqlite3_errstr(SQLITE_NOMEM);
  constexpr int primaryCode = 0xff;
  throw EventError(
      (code & primaryCode) == SQLITE_READONLY ? EKErrorCalendarReadOnly : EKErrorInternalFailure,
      "The event database " + name_ + " could not be " + operation + ": " + reason + ".",
      NSError::errorWithDomain_code_userInfo(sqliteErrorDomain, code,
                                             {{NSLocalizedDescriptionKey, reason}}));
}

SQLiteTransaction::SQLiteTransaction(SQLiteDatabase& database, Kind kind) : database_(database) {
  database_.statement(kind == Kind::writing ? "BEGIN IMMEDIATE" : "BEGIN").run();
}

SQLiteTransaction::~SQLiteTransaction() {
  // Some failures have rolled it back already.
  if (sqlite3_get_autocommit(database_.handle()) == 0) {
    sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

void SQLiteTransaction::commit() { database_.statement("COMMIT").run(); }

}  // namespace quillmere
