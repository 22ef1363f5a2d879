#ifndef QUILLMERE_PLATFORM_EVENTS_EVENTDATABASEFILE_H
#define QUILLMERE_PLATFORM_EVENTS_EVENTDATABASEFILE_H

#include <quillmere/platform/events/SQLiteDatabase.h>
#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

// Internal: how the file of an event database is found, made, checked and opened.
namespace quillmere {

/// The file of a database as long as this process has it open. To close any descriptor of a file
/// takes all locks away that the process has on it, SQLite's too, and then others believe that
/// nobody uses it: so a file is looked at, and made, only while no other store here has it open.
class EventDatabaseFile {
 public:
  /// `path` may be ":memory:". Makes the file when it is missing; throws an `EventError` when there
  /// is something else at the path.
  explicit EventDatabaseFile(std::string path);
  EventDatabaseFile(const EventDatabaseFile&) = delete;
  EventDatabaseFile& operator=(const EventDatabaseFile&) = delete;
  ~EventDatabaseFile();

  const std::string& path() const { return path_; }
  bool isInMemory() const { return path_ == ":memory:"; }

  /// The database with the latest schema. It must end before this object. Throws an `EventError`
  /// when it is damaged, of a later version or of another schema; then nothing has been written.
  std::unique_ptr<SQLiteDatabase> open() const;

 private:
  using Identity = std::pair<dev_t, ino_t>;

  static inline std::mutex mutex_;
  static inline std::multiset<Identity> open_;
  const std::string path_;
  std::optional<Identity> identity_;
};

/// Where the user's own database is; its folder is made.
std::string defaultEventDatabasePath();

}  // namespace quillmere

#endif
