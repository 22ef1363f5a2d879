#ifndef QUILLMERE_CALENDARS_KBTFILECALENDAR_H
#define QUILLMERE_CALENDARS_KBTFILECALENDAR_H

#include <quillmere/calendars/KBTDataCalendar.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>

#include <concepts>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace quillmere {

/// A calendar in a local iCalendar file. All work is synchronous: every callback is sent before the
/// operation returns.
///
/// The caching string is the file's modification date as ISO 8601 text in UTC with six fraction
/// digits ("2024-01-05T09:30:00.250000Z"). A fetch reads only a file that is younger; otherwise,
/// also when the file is missing, it sends the completed callback alone. The calendar's own save
/// does not count as a change.
///
/// When a fetch reads a file that is missing or unreadable, that is an empty document: every known
/// object is reported as deleted. A save replaces the file atomically
/// (`NSFileManager::writeData_toFileAtomically`). By contract a write that fails is reported as a
/// completed save; a host that must know reads the file again.
class QUILLMERE_EXPORT KBTFileCalendar : public KBTDataCalendar {
 public:
  /// The file at `path` need not exist yet.
  static std::shared_ptr<KBTFileCalendar> initWithPath(std::string path);
  /// There is no calendar without a path.
  static std::shared_ptr<KBTDataCalendar> init() = delete;

  const std::string& path() const { return path_; }

  /// Whether the other is a file calendar with the same path text.
  bool isEqualToCalendar(const KBTSynchingCalendar& other) const override;

  /// The modification date of the bytes that were last read or written; null before that. So a file
  /// that another program replaces during a fetch or a save is younger.
  std::optional<std::string> cachingString() const override;
  /// Takes any ISO 8601 date and time with seconds, a fraction or not, and "Z" or an offset such as
  /// "+01:00". Null, or any other text, counts as never read.
  void setCachingString(const std::optional<std::string>& cachingString) override;
  void setCachingString(std::same_as<std::nullptr_t> auto) = delete;

  /// Reports true when there is no caching string. Otherwise reports whether the file is younger
  /// than it; a missing file is not.
  void checkForExternalChanges() override;
  void fetchExternalChanges() override;

 protected:
  explicit KBTFileCalendar(std::string path);

  std::shared_ptr<KBTCalObject> _getCalendarData() override;
  void _writeCalendarData(const NSData& document) override;

  /// The file's modification date now. Null when the file has none that can be read.
  std::optional<NSDate> _checkDate() const;

 private:
  bool isYoungerThanLastSeen() const;

  std::string path_;
  std::optional<NSDate> lastModified_;
};

}  // namespace quillmere

#endif
