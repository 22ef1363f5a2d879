#ifndef QUILLMERE_PLATFORM_EVENTS_SQLITEDATABASE_H
#define QUILLMERE_PLATFORM_EVENTS_SQLITEDATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Internal: SQLite with its results as values and its failures as an `EventError`.
namespace quillmere {

class SQLiteDatabase;

/// A prepared statement in use: it is bound, stepped through, and ready to be used again at the end
/// of its scope.
class SQLiteStatement {
 public:
  SQLiteStatement(SQLiteDatabase& database, sqlite3_stmt* statement)
      : database_(database), statement_(statement) {}
  SQLiteStatement(const SQLiteStatement&) = delete;
  SQLiteStatement& operator=(const SQLiteStatement&) = delete;
  ~SQLiteStatement();

  /// Binds parameters 1, 2, 3... Texts must live as long as this object.
  template <class... Values>
  SQLiteStatement& bind(const Values&... values) {
    int parameter = 0;
    (bindOne(++parameter, values), ...);
    return *this;
  }

  /// Whether there is another row.
  bool step();
  /// Carries out a statement that has no rows.
  void run() { step(); }

  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  std::string text(int column) const { return textOrNull(column).value_or(std::string()); }
  std::optional<std::string> textOrNull(int column) const;

 private:
  void bindOne(int parameter, std::int64_t value);
  void bindOne(int parameter, std::string_view value);
  template <class Value>
  void bindOne(int parameter, const std::optional<Value>& value) {
    if (value) bindOne(parameter, *value);
  }

  SQLiteDatabase& database_;
  sqlite3_stmt* statement_;
};

/// An open database. Not for several threads at once.
class SQLiteDatabase {
 public:
  /// `name` is a path or URI, for error texts also; `flags` are those of `sqlite3_open_v2`.
  SQLiteDatabase(const std::string& name, int flags);
  SQLiteDatabase(const SQLiteDatabase&) = delete;
  SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

  /// Each text is prepared once; it must live for ever, and not be in use already.
  SQLiteStatement statement(const char* sql);
  /// Carries out statements that are needed once.
  void execute(const std::string& sql);
  std::int64_t pragma(const char* sql);

  sqlite3* handle() const { return database_.get(); }
  std::int64_t lastInsertedRow() const { return sqlite3_last_insert_rowid(database_.get()); }
  [[noreturn]] void fail(const char* operation) const;

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  std::string name_;
  std::unique_ptr<sqlite3, Close> database_;
  std::map<const char*, std::unique_ptr<sqlite3_stmt, Finalize>> statements_;
};

/// A transaction, which is rolled back unless it is committed.
class SQLiteTransaction {
 public:
  enum class Kind : std::uint8_t { reading, writing };

  SQLiteTransaction(SQLiteDatabase& database, Kind kind);
  SQLiteTransaction(const SQLiteTransaction&) = delete;
  SQLiteTransaction& operator=(const SQLiteTransaction&) = delete;
  ~SQLiteTransaction();

  void commit();

 private:
  SQLiteDatabase& database_;
};

}  // namespace quillmere

#endif
