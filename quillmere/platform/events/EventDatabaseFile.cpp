#include <fcntl.h>
#include <glib.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/events/EventBackend.h>
#include <quillmere/platform/events/EventDatabaseFile.h>
#include <quillmere/platform/events/SQLiteEventSchema.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <vector>

namespace quillmere {
namespace {

constexpr int busyMilliseconds = 10'000;

std::optional<std::pair<dev_t, ino_t>> identityOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return std::pair{status.st_dev, status.st_ino};
}

[[noreturn]] void refuse(const std::string& path, const std::string& reason,
                         NSErrorPtr underlying = nullptr) {
  throw EventError(EKErrorInternalFailure, "The event database " + path + " " + reason + ".",
                   std::move(underlying));
}

// Looks at the file before SQLite does, which may write to a database as soon as it is read.
void requireOwnFile(const std::string& path) {
  constexpr std::string_view magic{"SQLite format 3\0", 16};
  constexpr std::size_t headerLength = 100;
  constexpr std::size_t applicationIdOffset = 68;

  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.isOpen() && errno == ENOENT) return;
  struct stat status {};
  if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
    refuse(path, "could not be opened", NSError::errorWithPOSIXCode(errno));
  }
  if (!S_ISREG(status.st_mode)) refuse(path, "is not a regular file");
  if (status.st_size == 0) return;
  std::array<unsigned char, headerLength> header{};
  const ssize_t length = ::read(file.get(), header.data(), header.size());
  if (length < 0) refuse(path, "could not be read", NSError::errorWithPOSIXCode(errno));
  if (length != static_cast<ssize_t>(header.size()) ||
      !std::equal(magic.begin(), magic.end(), header.begin())) {
    refuse(path, "is not a database");
  }
  std::int64_t applicationId = 0;
  for (std::size_t i = 0; i != 4; ++i) {
    applicationId = applicationId * 256 + header.at(applicationIdOffset + i);
  }
  if (applicationId != eventApplicationId) refuse(path, "belongs to another program");
}

// Whether this process can write neither the file nor beside it. SQLite reads such a database only
// when it is promised that nobody else writes it; a log beside it says that somebody does.
bool isFrozen(const std::string& path) {
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  return ::access(path.c_str(), R_OK) == 0 && ::access(path.c_str(), W_OK) != 0 &&
         ::access(folder.empty() ? "." : folder.c_str(), W_OK) != 0 &&
         ::access((path + "-wal").c_str(), F_OK) != 0;
}

// SQLite's URI of a file that does not change.
std::string frozenURI(const std::string& path) {
  const std::unique_ptr<char, decltype(&g_free)> escaped(
      g_uri_escape_bytes(reinterpret_cast<const guint8*>(path.data()), path.size(), "/"), &g_free);
  return std::string("file:") + escaped.get() + "?immutable=1";
}

void configure(SQLiteDatabase& database) {
  sqlite3_busy_timeout(database.handle(), busyMilliseconds);
  // Nothing that a file brings along is to be carried out: our own schema has neither of these.
  const std::pair<int, int> settings[] = {{SQLITE_DBCONFIG_DEFENSIVE, 1},
                                          {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
                                          {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
                                          {SQLITE_DBCONFIG_ENABLE_VIEW, 0}};
  for (const auto& [setting, value] : settings) {
    sqlite3_db_config(database.handle(), setting, value, nullptr);
  }
  database.execute(
      "PRAGMA foreign_keys = ON; PRAGMA synchronous = FULL; PRAGMA cell_size_check = ON");
}

// What a database says of its tables, indexes, views and triggers, besides the tables that SQLite makes
// by itself. The name of the table that is asked cannot be taken by another one, unlike sqlite_schema.
std::vector<std::string> schemaOf(SQLiteDatabase& database) {
  std::vector<std::string> schema;
  auto row = database.statement(
      "SELECT type || quote(name) || quote(tbl_name) || quote(sql) FROM sqlite_master"
      " WHERE type <> 'table' OR coalesce(sql, '') NOT IN ("
      "  'CREATE TABLE sqlite_sequence(name,seq)',"
      "  'CREATE TABLE sqlite_stat1(tbl,idx,stat)',"
      "  'CREATE TABLE sqlite_stat4(tbl,idx,neq,nlt,ndlt,sample)')"
      " ORDER BY 1");
  while (row.step()) schema.push_back(row.text(0));
  return schema;
}

void makeSteps(SQLiteDatabase& database, std::int64_t first, std::int64_t last) {
  for (std::int64_t next = first; next < last; ++next) database.execute(eventSchemaSteps[next]);
}

constexpr auto latestVersion = static_cast<std::int64_t>(std::size(eventSchemaSteps));

std::vector<std::string> ownSchema(std::int64_t version) {
  SQLiteDatabase database(":memory:", SQLITE_OPEN_READWRITE);
  makeSteps(database, 0, version);
  return schemaOf(database);
}

// The version of the database, whose schema must be that version's to the letter: a table with a check,
// a computed column or a collation of its own, an index over an expression, a view in a table's place
// would have somebody else's statements carried out.
std::int64_t requireOwnSchema(SQLiteDatabase& database, const std::string& path) {
  const std::int64_t version = database.pragma("PRAGMA user_version");
  if (version < 0 || version > latestVersion) refuse(path, "was written by a later version");
  static const auto latest = ownSchema(latestVersion);
  if (schemaOf(database) != (version == latestVersion ? latest : ownSchema(version))) {
    refuse(path, "has tables of another kind than events'");
  }
  return version;
}

// Several processes may come here at once.
void bringUpToDate(SQLiteDatabase& database, const std::string& path) {
  {
    const SQLiteTransaction transaction(database, SQLiteTransaction::Kind::reading);
    if (requireOwnSchema(database, path) == latestVersion) return;
  }
  SQLiteTransaction transaction(database, SQLiteTransaction::Kind::writing);
  makeSteps(database, requireOwnSchema(database, path), latestVersion);
  database.execute("PRAGMA application_id = " + std::to_string(eventApplicationId));
  database.execute("PRAGMA user_version = " + std::to_string(latestVersion));
  transaction.commit();
}

// To change the mode SQLite must be alone with the file, for which it does not wait.
void switchToLog(SQLiteDatabase& database, const std::string& path) {
  for (int waited = 0;; ++waited) {
    auto mode = database.statement("PRAGMA journal_mode = WAL");
    try {
      if (mode.step() && mode.text(0) == "wal") return;
      refuse(path, "cannot be shared with other processes");
    } catch (const EventError&) {
      const bool isBusy = sqlite3_errcode(database.handle()) == SQLITE_BUSY;
      if (!isBusy || waited == busyMilliseconds) throw;
    }
    ::usleep(1000);
  }
}

}  // namespace

EventDatabaseFile::EventDatabaseFile(std::string path) : path_(std::move(path)) {
  if (isInMemory()) return;
  const std::lock_guard lock(mutex_);
  identity_ = identityOf(path_);
  if (!identity_ || !open_.contains(*identity_)) {
    requireOwnFile(path_);
    constexpr mode_t ownerOnly = 0600;
    const FileDescriptor made(
        ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, ownerOnly));
    identity_ = identityOf(path_);
  }
  if (identity_) open_.insert(*identity_);
}

EventDatabaseFile::~EventDatabaseFile() {
  const std::lock_guard lock(mutex_);
  if (identity_) open_.erase(open_.find(*identity_));
}

std::unique_ptr<SQLiteDatabase> EventDatabaseFile::open() const {
  constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (isInMemory()) {
    auto database = std::make_unique<SQLiteDatabase>(path_, flags);
    configure(*database);
    bringUpToDate(*database, path_);
    return database;
  }
  const bool hasLog = ::access((path_ + "-wal").c_str(), F_OK) == 0;
  auto database = isFrozen(path_) ? std::make_unique<SQLiteDatabase>(
                                        frozenURI(path_), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI)
                                  : std::make_unique<SQLiteDatabase>(path_, flags);
  configure(*database);
  // A log that somebody has left is not written into a file that is refused.
  const auto keepLog = [&](bool isKept) {
    sqlite3_db_config(database->handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, int{isKept}, nullptr);
  };
  keepLog(hasLog);
  bringUpToDate(*database, path_);
  // What is damaged is found before the mode is changed, which writes to the file.
  for (const char* sql : {"SELECT id FROM calendars LIMIT 1", "SELECT id FROM events LIMIT 1",
                          "SELECT series FROM exceptions LIMIT 1"}) {
    database->statement(sql).run();
  }
  keepLog(false);
  if (sqlite3_db_readonly(database->handle(), "main") == 0) switchToLog(*database, path_);
  return database;
}

std::string defaultEventDatabasePath() {
  constexpr int ownerOnly = 0700;
  // As it is now: GLib keeps the first answer, whatever a host sets later.
  const char* const given = std::getenv("XDG_DATA_HOME");
  const std::string data = given && g_path_is_absolute(given)
                               ? std::string(given)
                               : std::string(g_get_home_dir()) + "/.local/share";
  const std::string folder = data + "/quillmere";
  if (g_mkdir_with_parents(folder.c_str(), ownerOnly) != 0) {
    refuse(folder, "has no folder", NSError::errorWithPOSIXCode(errno));
  }
  return folder + "/events.sqlite";
}

}  // namespace quillmere
