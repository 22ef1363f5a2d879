#include <quillmere/platform/dates/CivilTime.h>
#include <quillmere/platform/dates/NSTimeZone.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace quillmere {
namespace {

using Alias = std::pair<std::string_view, std::string_view>;  // a name, and the IANA name it means

constexpr Alias windowsZones[] = {
#include <quillmere/platform/dates/WindowsZones.inc>  // IWYU pragma: keep
};

// The abbreviations that calendar programs have in common use, each with the zone it is taken for
// where it could mean several.
constexpr Alias abbreviations[] = {
    {"ADT", "America/Halifax"},
    {"AKDT", "America/Juneau"},
    {"AKST", "America/Juneau"},
    {"ART", "America/Argentina/Buenos_Aires"},
    {"AST", "America/Halifax"},
    {"BDT", "Asia/Dhaka"},
    {"BRST", "America/Sao_Paulo"},
    {"BRT", "America/Sao_Paulo"},
    {"BST", "Europe/London"},
    {"CAT", "Africa/Harare"},
    {"CDT", "America/Chicago"},
    {"CEST", "Europe/Paris"},
    {"CET", "Europe/Paris"},
    {"CLST", "America/Santiago"},
    {"CLT", "America/Santiago"},
    {"COT", "America/Bogota"},
    {"CST", "America/Chicago"},
    {"EAT", "Africa/Nairobi"},
    {"EDT", "America/New_York"},
    {"EEST", "Europe/Athens"},
    {"EET", "Europe/Athens"},
    {"EST", "America/New_York"},
    {"GMT", "GMT"},
    {"GST", "Asia/Dubai"},
    {"HKT", "Asia/Hong_Kong"},
    {"HST", "Pacific/Honolulu"},
    {"ICT", "Asia/Bangkok"},
    {"IRST", "Asia/Tehran"},
    {"IST", "Asia/Kolkata"},
    {"JST", "Asia/Tokyo"},
    {"KST", "Asia/Seoul"},
    {"MDT", "America/Denver"},
    {"MSD", "Europe/Moscow"},
    {"MSK", "Europe/Moscow"},
    {"MST", "America/Denver"},
    {"NDT", "America/St_Johns"},
    {"NST", "America/St_Johns"},
    {"NZDT", "Pacific/Auckland"},
    {"NZST", "Pacific/Auckland"},
    {"PDT", "America/Los_Angeles"},
    {"PET", "America/Lima"},
    {"PHT", "Asia/Manila"},
    {"PKT", "Asia/Karachi"},
    {"PST", "America/Los_Angeles"},
    {"SGT", "Asia/Singapore"},
    {"TRT", "Europe/Istanbul"},
    {"UTC", "UTC"},
    {"WAT", "Africa/Lagos"},
    {"WEST", "Europe/Lisbon"},
    {"WET", "Europe/Lisbon"},
    {"WIT", "Asia/Jakarta"},
};

constexpr bool sortedByName(const Alias* first, const Alias* last) {
  return std::is_sorted(first, last,
                        [](const Alias& a, const Alias& b) { return a.first < b.first; });
}
static_assert(sortedByName(std::begin(windowsZones), std::end(windowsZones)));
static_assert(sortedByName(std::begin(abbreviations), std::end(abbreviations)));

template <std::size_t Count>
std::optional<std::string_view> lookUp(const Alias (&table)[Count], std::string_view name) {
  const Alias* found = std::lower_bound(
      std::begin(table), std::end(table), name,
      [](const Alias& row, std::string_view wanted) { return row.first < wanted; });
  if (found == std::end(table) || found->first != name) return std::nullopt;
  return found->second;
}

// What the database's folder also holds: names for whatever this machine is set to, and every zone
// once more, with and without leap seconds.
constexpr std::string_view machineFiles[] = {"localtime", "posixrules"};
constexpr std::string_view copiesFolders[] = {"posix/", "right/"};

// In lower case, since a file system may not tell cases apart.
bool isNameOfZone(std::string name) {
  for (char& c : name) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return std::find(std::begin(machineFiles), std::end(machineFiles), name) ==
             std::end(machineFiles) &&
         std::none_of(std::begin(copiesFolders), std::end(copiesFolders),
                      [&name](std::string_view folder) { return name.starts_with(folder); });
}

// The name comes from a document and becomes a path below the zone database, so nothing that could
// lead out of it or mean something else to the loader is let through.
bool isZoneFile(const std::string& name) {
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
           c == '_' || c == '-' || c == '+';
  };
  // One spelling for each file, so that what is kept of zones stays as small as the database.
  const bool isPlainPath = !name.empty() && name.front() != '/' && name.back() != '/' &&
                           name.find("//") == std::string::npos;
  if (!isPlainPath || !std::all_of(name.begin(), name.end(), allowed)) return false;
  if (!isNameOfZone(name)) return false;
  const char* folder = std::getenv("TZDIR");
  std::error_code error;
  return std::filesystem::is_regular_file(
      std::filesystem::path(folder ? folder : "/usr/share/zoneinfo") / name, error);
}

std::optional<NSTimeZone>& hostsDefaultZone() {
  static std::optional<NSTimeZone> zone;
  return zone;
}

}  // namespace

struct NSTimeZone::Zone {
  cctz::time_zone zone;
  std::string name;
};

// Lets the functions of this file at the zone inside.
struct ZoneAccess {
  static NSTimeZone make(const cctz::time_zone& zone) {
    return NSTimeZone(
        std::make_shared<const NSTimeZone::Zone>(NSTimeZone::Zone{zone, zone.name()}));
  }
  static const NSTimeZone::Zone& zone(const NSTimeZone& zone) { return *zone.zone_; }
};

static std::optional<NSTimeZone> loadZone(const std::string& ianaName) {
  cctz::time_zone zone;
  if (!isZoneFile(ianaName) || !cctz::load_time_zone(ianaName, &zone)) return std::nullopt;
  return ZoneAccess::make(zone);
}

const cctz::time_zone& cctzZone(const NSTimeZone& zone) { return ZoneAccess::zone(zone).zone; }

std::optional<NSTimeZone> NSTimeZone::timeZoneWithName(std::string_view name) {
  // Holds zones that exist and nothing else, so names from documents cannot make it grow for ever.
  // One a thread, so that nobody needs a lock.
  thread_local std::unordered_map<std::string, NSTimeZone> knownZones;

  if (const auto known = knownZones.find(std::string(name)); known != knownZones.end()) {
    return known->second;
  }
  auto zone = loadZone(std::string(name));
  if (!zone) {
    if (const auto ianaName = lookUp(windowsZones, name)) zone = loadZone(std::string(*ianaName));
  }
  if (zone) knownZones.emplace(name, *zone);
  return zone;
}

std::optional<NSTimeZone> NSTimeZone::timeZoneWithAbbreviation(std::string_view abbreviation) {
  const auto name = lookUp(abbreviations, abbreviation);
  return name ? timeZoneWithName(*name) : std::nullopt;
}

static const NSTimeZone& defaultZone() {
  static const NSTimeZone systemZone = ZoneAccess::make(cctz::local_time_zone());
  const auto& hostsZone = hostsDefaultZone();
  return hostsZone ? *hostsZone : systemZone;
}

NSTimeZone NSTimeZone::defaultTimeZone() { return defaultZone(); }

const cctz::time_zone& cctzDefaultZone() { return cctzZone(defaultZone()); }

void NSTimeZone::setDefaultTimeZone(NSTimeZone zone) { hostsDefaultZone() = std::move(zone); }

void NSTimeZone::setDefaultTimeZone(std::nullopt_t) { hostsDefaultZone().reset(); }

bool NSTimeZone::setDefaultTimeZone(const std::optional<NSTimeZone>& zone) {
  if (zone) setDefaultTimeZone(*zone);
  return zone.has_value();
}

const std::string& NSTimeZone::name() const { return zone_->name; }

int NSTimeZone::secondsFromGMTForDate(NSDate date) const {
  return zone_->zone.lookup(timePoint(date)).offset;
}

}  // namespace quillmere
