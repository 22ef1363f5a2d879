#include <quillmere/platform/events/ChangeWatch.h>
#include <quillmere/platform/events/EventDatabaseFile.h>
#include <quillmere/platform/events/Recurrence.h>
#include <quillmere/platform/events/SQLiteDatabase.h>
#include <quillmere/platform/events/SQLiteEventBackend.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmere {
namespace {

using Kind = SQLiteTransaction::Kind;

// Wall times and instants differ by less than a day in any zone.
constexpr std::int64_t zoneMargin = 86'400 * NSDate::microsecondsPerSecond;

// How the times of a row are meant.
enum class Form : std::uint8_t { zoned = 0, floating = 1, allDay = 2 };

Form formOf(const EventRecord& event) {
  if (event.isAllDay) return Form::allDay;
  return event.timeZone ? Form::zoned : Form::floating;
}

std::int64_t storedTime(Form form, NSDate date) {
  if (form != Form::zoned) date = wallTime(date, NSTimeZone::defaultTimeZone());
  return date.microsecondsSince1970();
}

// A damaged database may have any number.
NSDate dateOfStored(std::int64_t form, std::int64_t time) {
  const NSDate date = std::clamp(NSDate::dateWithMicrosecondsSince1970(time), firstDate, lastDate);
  if (form == static_cast<std::int64_t>(Form::zoned)) return date;
  return dateOfWallTime(date, NSTimeZone::defaultTimeZone());
}

std::string textOf(const std::vector<EKAlarm>& alarms) {
  std::string text;
  for (const EKAlarm& alarm : alarms) {
    text += (text.empty() ? "" : " ") + std::to_string(alarm.relativeOffset);
  }
  return text;
}

std::vector<EKAlarm> alarmsOf(std::string_view text) {
  std::vector<EKAlarm> alarms;
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    EKAlarm alarm;
    std::from_chars(word.data(), word.data() + word.size(), alarm.relativeOffset);
    alarms.push_back(alarm);
    text.remove_prefix(std::min(word.size() + 1, text.size()));
  }
  return alarms;
}

// The columns that `eventOf` reads.
constexpr std::string_view selectEvents =
    "SELECT e.id, e.identifier, e.form, e.zone, e.start, e.end, e.modified, e.alarms, e.title,"
    "  e.notes, coalesce(e.rule, s.rule), s.form, e.occurrence, c.identifier,"
    "  e.rule IS NOT NULL"
    " FROM events AS e JOIN calendars AS c ON c.id = e.calendar"
    " LEFT JOIN events AS s ON s.id = e.series ";

struct StoredEvent {
  std::int64_t row = 0;
  bool isSeries = false;
  EventRecord event;  // of a series: its first occurrence by the rule, whether it is left or not
};

StoredEvent eventOf(const SQLiteStatement& row) {
  StoredEvent stored;
  stored.row = row.integer(0);
  stored.isSeries = row.integer(14) != 0;
  EventRecord& event = stored.event;
  event.identifier = row.text(1);
  const std::int64_t form = row.integer(2);
  event.isAllDay = form == static_cast<std::int64_t>(Form::allDay);
  if (const auto zone = row.textOrNull(3)) {
    // A zone that this system does not know: the instants are right, which is most of it.
    const auto known = NSTimeZone::timeZoneWithName(*zone);
    event.timeZone = known ? *known : NSTimeZone::defaultTimeZone();
  }
  event.start = dateOfStored(form, row.integer(4));
  event.end = dateOfStored(form, row.integer(5));
  event.lastModified = NSDate::dateWithMicrosecondsSince1970(row.integer(6));
  event.alarms = alarmsOf(row.text(7));
  event.title = row.textOrNull(8);
  if (auto notes = row.textOrNull(9)) event.notes = NSData::dataWithString(std::move(*notes));
  event.recurrenceRule = row.textOrNull(10);
  event.isDetached = !row.isNull(12);
  event.occurrenceDate =
      event.isDetached ? dateOfStored(row.integer(11), row.integer(12)) : event.start;
  event.calendar = row.text(13);
  return stored;
}

class SQLiteEventBackend : public EventBackend,
                           public std::enable_shared_from_this<SQLiteEventBackend> {
 public:
  explicit SQLiteEventBackend(const std::string& path)
      : file_(path), database_(file_.open()), dataVersion_(readDataVersion()) {}

  std::vector<CalendarRecord> calendars() override {
    const std::lock_guard lock(mutex_);
    std::vector<CalendarRecord> calendars;
    auto row = database_->statement("SELECT identifier, title FROM calendars ORDER BY title, id");
    while (row.step()) calendars.push_back({row.text(0), row.textOrNull(1)});
    return calendars;
  }

  void saveCalendar(CalendarRecord& calendar) override {
    const std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(*database_, Kind::writing);
    database_
        ->statement(
            "INSERT INTO calendars(identifier, title) VALUES(?1, ?2)"
            " ON CONFLICT(identifier) DO UPDATE SET title = ?2")
        .bind(calendar.identifier, calendar.title)
        .run();
    transaction.commit();
  }

  void removeCalendar(const std::string& identifier) override {
    const std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(*database_, Kind::writing);
    const std::int64_t row = requireCalendar(identifier);
    database_->statement("DELETE FROM calendars WHERE id = ?1").bind(row).run();
    transaction.commit();
  }

  void readEvents(const std::string& calendar, NSDate from, NSDate to, const Sink& sink) override {
    const std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(*database_, Kind::reading);
    from = std::clamp(from, firstDate, lastDate);
    to = std::clamp(to, firstDate, lastDate);
    const auto row = rowOfCalendar(calendar);
    if (!row) return;
    const std::int64_t earliest = from.microsecondsSince1970() - zoneMargin;
    const std::int64_t latest = to.microsecondsSince1970() + zoneMargin;

    static const std::string sql =
        "WITH RECURSIVE widths(bits) AS ("
        "  SELECT min(width) FROM events WHERE calendar = ?1"
        "  UNION ALL"
        "  SELECT (SELECT min(width) FROM events WHERE calendar = ?1 AND width > bits) FROM widths"
        "  WHERE bits IS NOT NULL) " +
        std::string(selectEvents) +
        "JOIN widths WHERE e.calendar = ?1 AND e.width = bits"
        " AND e.start > ?2 - (1 << bits) AND e.start < ?3 AND e.last >= ?2";
    auto found = database_->statement(sql.c_str());
    found.bind(*row, earliest, latest);
    while (found.step()) {
      StoredEvent stored = eventOf(found);
      if (stored.isSeries) {
        expand(stored, from, to, sink);
      } else if (isInRange(stored.event, from, to)) {
        sink(std::move(stored.event));
      }
    }
  }

  void readItems(const std::string& identifier, const Sink& sink) override {
    const std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(*database_, Kind::reading);
    static const std::string items =
        std::string(selectEvents) + "WHERE e.identifier = ?1 AND e.series IS NULL ORDER BY e.id";
    auto found = database_->statement(items.c_str());
    found.bind(identifier);
    while (found.step()) {
      StoredEvent item = eventOf(found);
      if (item.isSeries) {
        readFirstOccurrence(item, sink);
      } else {
        sink(std::move(item.event));
      }
    }
  }

  void saveEvent(const EventRecord* stored, EventRecord& event, EKSpan span) override {
    const std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(*database_, Kind::writing);
    event.lastModified = NSDate::date();
    if (!stored) {
      insert(event, std::nullopt);
      event.occurrenceDate = event.start;
    } else {
      const StoredEvent current = requireEvent(*stored);
      requireOccurrence(current, *stored);
      if (!current.isSeries) {
        event = merged(*stored, event, withModification(current.event, event));
        update(current.row, event, std::nullopt);
        event.occurrenceDate = event.start;
      } else if (span == EKSpan::thisEvent) {
        saveOccurrence(current, *stored, event);
      } else {
        saveFutureOccurrences(current, *stored, event);
      }
    }
    transaction.commit();
  }

  void removeEvent(const EventRecord& stored, EKSpan span) override {
    const std::lock_guard lock(mutex_);
    SQLiteTransaction transaction(*database_, Kind::writing);
    const StoredEvent current = requireEvent(stored);
    requireOccurrence(current, stored);
    const bool isWhole = !current.isSeries || (span == EKSpan::futureEvents &&
                                               !hasEarlier(current, *stored.occurrenceDate));
    if (isWhole) {
      remove(current.row);
    } else if (span == EKSpan::thisEvent) {
      const std::int64_t time = storedTime(formOf(current.event), *stored.occurrenceDate);
      removeDetached(current.row, time, time);
      addException(current.row, time);
      if (!hasEarlier(current, lastDate)) remove(current.row);
    } else {
      endBefore(current, *stored.occurrenceDate);
    }
    transaction.commit();
  }

  void setChangeHandler(std::function<void()> handler) override {
    if (file_.isInMemory()) return;
    watch_.emplace(file_.path() + "-wal", [weak = weak_from_this(), handler = std::move(handler)] {
      const auto self = weak.lock();
      if (!self || !self->hasChanged()) return false;
      handler();
      return true;
    });
  }

 private:
  std::int64_t readDataVersion() { return database_->pragma("PRAGMA data_version"); }

  // Another thread's operation may take long: then the question is asked again later.
  bool hasChanged() {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock) return false;
    try {
      return std::exchange(dataVersion_, readDataVersion()) != dataVersion_;
    } catch (const EventError&) {
      return false;
    }
  }

  std::optional<std::int64_t> rowOfCalendar(const std::string& identifier) {
    auto row = database_->statement("SELECT id FROM calendars WHERE identifier = ?1");
    row.bind(identifier);
    if (!row.step()) return std::nullopt;
    return row.integer(0);
  }

  std::int64_t requireCalendar(const std::string& identifier) {
    const auto row = rowOfCalendar(identifier);
    if (!row) throw EventError(EKErrorNoCalendar, "The store has no such calendar.");
    return *row;
  }

  // The event, or whole series, that a fetched event is or was part of.
  StoredEvent requireEvent(const EventRecord& fetched) {
    static const std::string sql = std::string(selectEvents) +
                                   "WHERE e.identifier = ?1 AND e.series IS NULL"
                                   " AND c.identifier = ?2";
    auto row = database_->statement(sql.c_str());
    row.bind(fetched.identifier, fetched.calendar);
    if (!row.step()) {
      throw EventError(EKErrorInternalFailure, "The event is no longer in the store.");
    }
    return eventOf(row);
  }

  std::set<std::int64_t> exceptionsOf(std::int64_t series) {
    std::set<std::int64_t> times;
    auto row = database_->statement("SELECT occurrence FROM exceptions WHERE series = ?1");
    row.bind(series);
    while (row.step()) times.insert(row.integer(0));
    return times;
  }

  // By the time that they stand for.
  std::map<std::int64_t, std::int64_t> detachedRowsOf(std::int64_t series) {
    std::map<std::int64_t, std::int64_t> rows;
    auto row = database_->statement("SELECT occurrence, id FROM events WHERE series = ?1");
    row.bind(series);
    while (row.step()) rows.emplace(row.integer(0), row.integer(1));
    return rows;
  }

  std::optional<StoredEvent> detachedOf(std::int64_t series, std::int64_t time) {
    static const std::string sql =
        std::string(selectEvents) + "WHERE e.series = ?1 AND e.occurrence = ?2";
    auto row = database_->statement(sql.c_str());
    row.bind(series, time);
    if (!row.step()) return std::nullopt;
    return eventOf(row);
  }

  // The occurrences that the rule gives and that were not changed; those are rows of their own.
  void expand(const StoredEvent& series, NSDate from, NSDate to, const Sink& sink) {
    const Form form = formOf(series.event);
    const auto exceptions = exceptionsOf(series.row);
    const auto detached = detachedRowsOf(series.row);
    const std::int64_t length = microsecondsBetween(*series.event.start, *series.event.end);
    forEachOccurrence(series.event, dateAfter(from, -length - zoneMargin), to, [&](NSDate start) {
      EventRecord occurrence = occurrenceOf(series.event, start);
      const std::int64_t time = storedTime(form, start);
      if (isInRange(occurrence, from, to) && !exceptions.contains(time) &&
          !detached.contains(time)) {
        sink(std::move(occurrence));
      }
      return true;
    });
  }

  std::vector<NSDate> exceptionDatesOf(const StoredEvent& series) {
    const auto form = static_cast<std::int64_t>(formOf(series.event));
    std::vector<NSDate> dates;
    for (const std::int64_t time : exceptionsOf(series.row)) {
      dates.push_back(dateOfStored(form, time));
    }
    return dates;
  }

  // The first time, on or after `from` and before `to`, of an occurrence that is left, changed or not.
  // One that was changed may stand for a time that the rule no longer gives.
  std::optional<std::int64_t> firstTimeLeft(const StoredEvent& series, NSDate from, NSDate to) {
    const Form form = formOf(series.event);
    const auto exceptions = exceptionsOf(series.row);
    std::optional<std::int64_t> first;
    forEachOccurrence(series.event, from, to, [&](NSDate start) {
      const std::int64_t time = storedTime(form, start);
      if (!exceptions.contains(time)) first = time;
      return !first;
    });
    const auto detached = detachedRowsOf(series.row);
    const auto changed = detached.lower_bound(storedTime(form, from));
    if (changed == detached.end() || changed->first >= storedTime(form, to)) return first;
    return std::min(first.value_or(changed->first), changed->first);
  }

  void readFirstOccurrence(const StoredEvent& series, const Sink& sink) {
    const auto time = firstTimeLeft(series, firstDate, lastDate);
    if (!time) return;
    const auto detached = detachedOf(series.row, *time);
    const auto form = static_cast<std::int64_t>(formOf(series.event));
    EventRecord first =
        detached ? detached->event : occurrenceOf(series.event, dateOfStored(form, *time));
    first.exceptionDates = exceptionDatesOf(series);
    sink(std::move(first));
  }

  bool hasEarlier(const StoredEvent& series, NSDate date) {
    return firstTimeLeft(series, firstDate, date).has_value();
  }

  // Another may have removed what was fetched, or moved the series away from it.
  void requireOccurrence(const StoredEvent& current, const EventRecord& fetched) {
    const NSDate date = *fetched.occurrenceDate;
    const bool isLeft = current.isSeries
                            ? firstTimeLeft(current, date, dateAfter(date, 1)).has_value()
                            : !fetched.recurrenceRule || date == current.event.start;
    if (!isLeft) throw EventError(EKErrorInternalFailure, "The occurrence is no longer there.");
  }

  static EventRecord withModification(EventRecord event, const EventRecord& saved) {
    event.lastModified = saved.lastModified;
    return event;
  }

  // What a row belongs to when it is a changed occurrence.
  struct Place {
    std::int64_t series;
    std::int64_t time;
  };

  void insert(const EventRecord& event, const std::optional<Place>& place) {
    auto statement = database_->statement(
        "INSERT INTO events(calendar, identifier, form, zone, start, end, last, width, rule,"
        "  modified, alarms, title, notes, series, occurrence)"
        " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15)");
    write(statement, event, place, std::nullopt);
  }

  void update(std::int64_t row, const EventRecord& event, const std::optional<Place>& place) {
    auto statement = database_->statement(
        "UPDATE events SET calendar = ?1, identifier = ?2, form = ?3, zone = ?4, start = ?5,"
        "  end = ?6, last = ?7, width = ?8, rule = ?9, modified = ?10, alarms = ?11, title = ?12,"
        "  notes = ?13, series = ?14, occurrence = ?15 WHERE id = ?16");
    write(statement, event, place, row);
  }

  void write(SQLiteStatement& statement, const EventRecord& event,
             const std::optional<Place>& place, const std::optional<std::int64_t>& row) {
    const Form form = formOf(event);
    const std::int64_t start = storedTime(form, *event.start);
    const std::int64_t end = storedTime(form, *event.end);
    std::int64_t last = end;
    std::optional<std::string> rule;
    if (event.recurrenceRule && !place) {
      requireRecurrenceRule(event);
      rule = event.recurrenceRule;
      last = endOfRecurrence(event).microsecondsSince1970();
    }
    // By wall time, a clock set back may let it be over before it starts.
    const std::int64_t length = std::max<std::int64_t>(last - start, 0);
    const auto width =
        static_cast<std::int64_t>(std::bit_width(static_cast<std::uint64_t>(length)));
    std::optional<std::string> zone;
    if (event.timeZone) zone = event.timeZone->name();
    const std::string alarms = textOf(event.alarms);
    std::optional<std::string_view> notes;
    if (event.notes) notes = event.notes->view();
    std::optional<std::int64_t> series;
    std::optional<std::int64_t> occurrence;
    if (place) {
      series = place->series;
      occurrence = place->time;
    }
    statement
        .bind(requireCalendar(event.calendar), event.identifier, static_cast<std::int64_t>(form),
              zone, start, end, last, width, rule, event.lastModified->microsecondsSince1970(),
              alarms, event.title, notes, series, occurrence, row)
        .run();
    if (rule) {
      const std::int64_t written = row ? *row : database_->lastInsertedRow();
      for (const NSDate date : event.exceptionDates) addException(written, storedTime(form, date));
    }
  }

  void remove(std::int64_t row) {
    database_->statement("DELETE FROM events WHERE id = ?1").bind(row).run();
  }

  void addException(std::int64_t series, std::int64_t time) {
    database_->statement("INSERT OR IGNORE INTO exceptions(series, occurrence) VALUES(?1, ?2)")
        .bind(series, time)
        .run();
  }

  void removeExceptions(std::int64_t series, std::int64_t from) {
    database_->statement("DELETE FROM exceptions WHERE series = ?1 AND occurrence >= ?2")
        .bind(series, from)
        .run();
  }

  void removeDetached(std::int64_t series, std::int64_t first, std::int64_t last) {
    database_->statement("DELETE FROM events WHERE series = ?1 AND occurrence BETWEEN ?2 AND ?3")
        .bind(series, first, last)
        .run();
  }

  void saveOccurrence(const StoredEvent& series, const EventRecord& stored, EventRecord& event);
  void saveFutureOccurrences(const StoredEvent& series, const EventRecord& stored,
                             EventRecord& event);
  void endBefore(const StoredEvent& series, NSDate date);

  const EventDatabaseFile file_;
  std::mutex mutex_;
  std::unique_ptr<SQLiteDatabase> database_;
  std::int64_t dataVersion_;
  std::optional<ChangeWatch> watch_;
};

void SQLiteEventBackend::saveOccurrence(const StoredEvent& series, const EventRecord& stored,
                                        EventRecord& event) {
  requireChangeOfOneOccurrence(stored, event);
  const NSDate date = *stored.occurrenceDate;
  const Place place{series.row, storedTime(formOf(series.event), date)};
  const auto detached = detachedOf(series.row, place.time);
  const EventRecord& current = detached ? detached->event : occurrenceOf(series.event, date);
  event = merged(stored, event, withModification(current, event));
  event.isDetached = true;
  if (detached) {
    update(detached->row, event, place);
  } else {
    insert(event, place);
  }
}

// The rule with an end, and nothing that stands for later occurrences.
void SQLiteEventBackend::endBefore(const StoredEvent& series, NSDate date) {
  const std::int64_t time = storedTime(formOf(series.event), date);
  removeExceptions(series.row, time);
  removeDetached(series.row, time, lastDate.microsecondsSince1970());
  EventRecord ended = series.event;
  ended.recurrenceRule = ruleEndingBefore(ended, date);
  ended.lastModified = NSDate::date();
  update(series.row, ended, std::nullopt);
}

// Changes the series from an occurrence on: the whole series when nothing is left before it, else a
// new one that takes over the rest of it.
void SQLiteEventBackend::saveFutureOccurrences(const StoredEvent& series, const EventRecord& stored,
                                               EventRecord& event) {
  const NSDate date = *stored.occurrenceDate;
  const bool isWhole = !hasEarlier(series, date);
  const Form oldForm = formOf(series.event);
  const std::int64_t firstTime =
      isWhole ? firstDate.microsecondsSince1970() : storedTime(oldForm, date);
  EventRecord old = series.event;
  old.exceptionDates = exceptionDatesOf(series);
  const SeriesChange change(old, stored, event, isWhole);
  const EventRecord& changed = change.series();

  // Without its place a row is in no one's way while the others move.
  auto detached = detachedRowsOf(series.row);
  detached.erase(detached.begin(), detached.lower_bound(firstTime));
  for (const auto& [time, row] : detached) {
    database_->statement("UPDATE events SET occurrence = NULL WHERE id = ?1").bind(row).run();
  }
  std::int64_t row = series.row;
  if (isWhole) {
    removeExceptions(row, firstTime);
    update(row, changed, std::nullopt);
  } else {
    endBefore(series, date);
    insert(changed, std::nullopt);
    row = database_->lastInsertedRow();
  }
  for (const auto& [time, detachedRow] : detached) {
    if (!changed.recurrenceRule) {
      remove(detachedRow);
      continue;
    }
    const NSDate newDate = change.moved(dateOfStored(std::int64_t(oldForm), time));
    database_
        ->statement(
            "UPDATE events SET series = ?1, occurrence = ?2, identifier = ?3,"
            " calendar = ?4 WHERE id = ?5")
        .bind(row, storedTime(formOf(changed), newDate), changed.identifier,
              requireCalendar(changed.calendar), detachedRow)
        .run();
  }

  const NSDate movedDate = change.moved(date);
  const Place place{row, storedTime(formOf(changed), movedDate)};
  const auto own = detachedOf(row, place.time);
  if (own && stored.isDetached) {
    event = merged(stored, event, withModification(own->event, event));
    update(own->row, event, place);
  } else {
    event = occurrenceOf(changed, movedDate);
  }
}

}  // namespace

std::shared_ptr<EventBackend> openSQLiteEventBackend(const std::string& path) {
  return std::make_shared<SQLiteEventBackend>(path);
}

}  // namespace quillmere
