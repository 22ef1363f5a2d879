#ifndef QUILLMERE_PLATFORM_DATES_NSTIMEZONE_H
#define QUILLMERE_PLATFORM_DATES_NSTIMEZONE_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quillmere {

/// A time zone: the rule that gives every instant its offset from UTC. A value; copying is cheap.
class QUILLMERE_EXPORT NSTimeZone {
 public:
  /// The zone of that name: of a file in the system's zone database, so an IANA name such as
  /// "Europe/Paris", or else a Windows name ("W. Europe Standard Time"), which Outlook and Exchange
  /// write, by CLDR's mapping. Null for any other text, also for "localtime" and "posixrules",
  /// which are other zones on other machines, and for the copies of zones below "posix/" and
  /// "right/". The first use of a zone on a thread reads its file.
  static std::optional<NSTimeZone> timeZoneWithName(std::string_view name);

  /// The zone that a published table gives for an abbreviation such as "PST" or "CEST". Null for
  /// any other text.
  static std::optional<NSTimeZone> timeZoneWithAbbreviation(std::string_view abbreviation);

  /// The zone of date-only texts and of all calendar arithmetic: the one that the host set, else
  /// the system's as it was when first asked for.
  static NSTimeZone defaultTimeZone();

  /// Replaces the default zone; `std::nullopt` goes back to the system's. A host calls it before it
  /// uses the library on a second thread.
  static void setDefaultTimeZone(NSTimeZone zone);
  static void setDefaultTimeZone(std::nullopt_t);
  /// The same for a zone that was looked up. Returns false for null, which a misspelt name gives;
  /// the default zone then stays as it is.
  [[nodiscard]] static bool setDefaultTimeZone(const std::optional<NSTimeZone>& zone);

  /// The name in the zone database, also where the zone was asked for by another. The system's zone
  /// may have a name of its own, such as "/etc/localtime".
  const std::string& name() const;

  /// Seconds east of UTC at that instant; negative in the west.
  int secondsFromGMTForDate(NSDate date) const;

  friend bool operator==(const NSTimeZone& a, const NSTimeZone& b) { return a.name() == b.name(); }

 private:
  struct Zone;
  friend struct ZoneAccess;
  explicit NSTimeZone(std::shared_ptr<const Zone> zone) : zone_(std::move(zone)) {}

  std::shared_ptr<const Zone> zone_;
};

}  // namespace quillmere

#endif
