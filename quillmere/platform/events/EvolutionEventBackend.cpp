#include <libecal/libecal.h>
#include <quillmere/platform/events/EvolutionComponent.h>
#include <quillmere/platform/events/EvolutionEventBackend.h>
#include <quillmere/platform/events/Recurrence.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

namespace quillmere {
namespace {

// Word of a connection comes through the main loop, which does not run meanwhile; what is asked of a
// calendar that is not there yet fails by itself.
constexpr guint32 withoutWaiting = ~guint32{0};

// Takes a `GError` in, and throws it when the call has failed.
class Outcome {
 public:
  Outcome() = default;
  Outcome(const Outcome&) = delete;
  Outcome& operator=(const Outcome&) = delete;
  ~Outcome() { g_clear_error(&error_); }

  GError** operator&() { return &error_; }  // as the argument of the call
  bool isNotFound() const {
    return g_error_matches(error_, E_CAL_CLIENT_ERROR, E_CAL_CLIENT_ERROR_OBJECT_NOT_FOUND);
  }
  void require(bool isGood) const {
    if (isGood) return;
    const std::string text = error_ ? error_->message : "no reason given";
    NSErrorPtr underlying;
    if (error_) {
      underlying = NSError::errorWithDomain_code_userInfo(
          g_quark_to_string(error_->domain), error_->code, {{NSLocalizedDescriptionKey, text}});
    }
    const bool isReadOnly =
        g_error_matches(error_, E_CLIENT_ERROR, E_CLIENT_ERROR_PERMISSION_DENIED);
    throw EventError(isReadOnly ? EKErrorCalendarReadOnly : EKErrorInternalFailure,
                     "Evolution's event store: " + text + ".", underlying);
  }

 private:
  GError* error_ = nullptr;
};

struct SourceListFree {
  void operator()(GList* sources) const { g_list_free_full(sources, g_object_unref); }
};
struct ComponentListFree {
  void operator()(GSList* components) const { g_slist_free_full(components, g_object_unref); }
};

class EvolutionEventBackend;

// A signal that the backend hears of, as long as this exists. Signals come on the main loop's thread,
// while the backend may be let go of on another one: the one that comes keeps it alive.
class Connection {
 public:
  Connection(gpointer sender, const char* signal, std::weak_ptr<EvolutionEventBackend> receiver)
      : sender_(G_OBJECT(g_object_ref(sender))) {
    auto handle = std::make_unique<Receiver>(std::move(receiver));
    identifier_ = g_signal_connect_data(sender, signal, G_CALLBACK(&Connection::changed),
                                        handle.release(), &Connection::drop, G_CONNECT_SWAPPED);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { g_signal_handler_disconnect(sender_.get(), identifier_); }

 private:
  using Receiver = std::weak_ptr<EvolutionEventBackend>;

  static void changed(Receiver* receiver);
  static void drop(gpointer data, GClosure*) {
    const std::unique_ptr<Receiver> dropped(static_cast<Receiver*>(data));
  }

  GObjectPtr<GObject> sender_;
  gulong identifier_ = 0;
};

class EvolutionEventBackend : public EventBackend,
                              public std::enable_shared_from_this<EvolutionEventBackend> {
 public:
  EvolutionEventBackend() {
    Outcome outcome;
    // The process's shared connection, which Evolution uses, would end the process with the bus.
    const GObjectPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &outcome));
    outcome.require(bus != nullptr);
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    registry_.reset(e_source_registry_new_sync(nullptr, &outcome));
    outcome.require(registry_ != nullptr);
  }

  std::vector<CalendarRecord> calendars() override {
    const std::lock_guard lock(mutex_);
    std::vector<CalendarRecord> calendars;
    const std::unique_ptr<GList, SourceListFree> sources(
        e_source_registry_list_enabled(registry_.get(), E_SOURCE_EXTENSION_CALENDAR));
    for (const GList* at = sources.get(); at; at = at->next) {
      auto* const source = static_cast<ESource*>(at->data);
      const char* const title = e_source_get_display_name(source);
      calendars.push_back(
          {e_source_get_uid(source), title ? std::optional<std::string>(title) : std::nullopt});
    }
    std::sort(calendars.begin(), calendars.end(),
              [](const auto& a, const auto& b) { return a.title < b.title; });
    return calendars;
  }

  void saveCalendar(CalendarRecord& calendar) override {
    const std::lock_guard lock(mutex_);
    Outcome outcome;
    GObjectPtr<ESource> source(
        e_source_registry_ref_source(registry_.get(), calendar.identifier.c_str()));
    const bool isNew = !source;
    if (isNew) {
      source.reset(e_source_new_with_uid(calendar.identifier.c_str(), nullptr, &outcome));
      outcome.require(source != nullptr);
      e_source_set_parent(source.get(), "local-stub");
      auto* const extension = static_cast<ESourceBackend*>(
          e_source_get_extension(source.get(), E_SOURCE_EXTENSION_CALENDAR));
      e_source_backend_set_backend_name(extension, "local");
    }
    e_source_set_display_name(source.get(), calendar.title.value_or("").c_str());
    outcome.require(isNew ? e_source_registry_commit_source_sync(registry_.get(), source.get(),
                                                                 nullptr, &outcome)
                          : e_source_write_sync(source.get(), nullptr, &outcome));
    if (isNew) waitFor(calendar.identifier);
  }

  void removeCalendar(const std::string& identifier) override {
    const std::lock_guard lock(mutex_);
    const GObjectPtr<ESource> source = requireSource(identifier);
    Outcome outcome;
    outcome.require(e_source_remove_sync(source.get(), nullptr, &outcome));
    calendars_.erase(identifier);
  }

  void readEvents(const std::string& calendar, NSDate from, NSDate to, const Sink& sink) override {
    const std::lock_guard lock(mutex_);
    from = std::clamp(from, firstDate, lastDate);
    to = std::clamp(to, firstDate, lastDate);
    ECalClient* const client = clientOf(calendar);
    // An event at the very beginning, without length, is found by the second before it.
    const std::string query = "(occur-in-time-range? (make-time \"" +
                              from.dateByAddingSeconds(-1).icsDateString() + "\") (make-time \"" +
                              to.icsDateString() + "\"))";
    Outcome outcome;
    GSList* list = nullptr;
    const bool isRead =
        e_cal_client_get_object_list_sync(client, query.c_str(), &list, nullptr, &outcome);
    const std::unique_ptr<GSList, ComponentListFree> components(list);
    outcome.require(isRead);
    std::set<std::string> series;
    for (const GSList* at = list; at; at = at->next) {
      EventRecord event = recordOfComponent(static_cast<ICalComponent*>(at->data), client);
      event.calendar = calendar;
      if (event.isDetached || event.recurrenceRule) {
        series.insert(event.identifier);
      } else if (isInRange(event, from, to)) {
        sink(std::move(event));
      }
    }
    for (const std::string& identifier : series) {
      Item item = master(client, identifier);
      item.event.calendar = calendar;
      expand(client, item, from, to, sink);
    }
  }

  void readItems(const std::string& identifier, const Sink& sink) override {
    for (const CalendarRecord& calendar : calendars()) {
      const std::lock_guard lock(mutex_);
      ECalClient* const client = clientOf(calendar.identifier);
      Item item = master(client, identifier);
      if (!item.component) continue;
      item.event.calendar = calendar.identifier;
      if (!item.event.recurrenceRule) {
        sink(std::move(item.event));
      } else if (auto first = firstOccurrence(item)) {
        sink(std::move(*first));
      }
    }
  }

  void saveEvent(const EventRecord* stored, EventRecord& event, EKSpan span) override {
    const std::lock_guard lock(mutex_);
    if (event.recurrenceRule) requireRecurrenceRule(event);
    ECalClient* const client = clientOf(event.calendar);
    addZone(client, event);
    if (!stored) {
      create(client, event);
    } else {
      Item item = requireItem(*stored);
      if (event.calendar != stored->calendar) {
        requireWhole(item, span);
        writeDifferences(item.component.get(), *stored, event);
        Outcome outcome;
        outcome.require(e_cal_client_create_object_sync(
            client, item.component.get(), E_CAL_OPERATION_FLAG_NONE, nullptr, nullptr, &outcome));
        remove(clientOf(stored->calendar), event.identifier, "", E_CAL_OBJ_MOD_ALL);
      } else if (!item.event.recurrenceRule) {
        writeDifferences(item.component.get(), *stored, event);
        modify(client, item, E_CAL_OBJ_MOD_ALL);
        event = merged(*stored, event, item.event);
      } else if (span == EKSpan::thisEvent) {
        saveOccurrence(client, item, *stored, event);
      } else {
        saveFutureOccurrences(client, item, *stored, event);
      }
    }
    const Item saved = master(client, event.identifier);
    event.lastModified = saved.event.lastModified ? saved.event.lastModified : NSDate::date();
    if (!event.isDetached) event.occurrenceDate = event.start;
  }

  void removeEvent(const EventRecord& stored, EKSpan span) override {
    const std::lock_guard lock(mutex_);
    const Item item = requireItem(stored);
    ECalClient* const client = clientOf(stored.calendar);
    const bool isWhole = !item.event.recurrenceRule || (span == EKSpan::futureEvents &&
                                                        !hasEarlier(item, *stored.occurrenceDate));
    if (isWhole) {
      remove(client, stored.identifier, "", E_CAL_OBJ_MOD_ALL);
      return;
    }
    remove(client, stored.identifier, occurrenceName(item.event, *stored.occurrenceDate),
           span == EKSpan::thisEvent ? E_CAL_OBJ_MOD_THIS : E_CAL_OBJ_MOD_THIS_AND_FUTURE);
    const Item left = master(client, stored.identifier);
    if (left.component && !hasEarlier(left, lastDate)) {
      remove(client, stored.identifier, "", E_CAL_OBJ_MOD_ALL);
    }
  }

  void setChangeHandler(std::function<void()> handler) override {
    handler_ = std::move(handler);
    for (const char* signal : {"source-added", "source-removed", "source-changed"}) {
      connections_.emplace_back(registry_.get(), signal, weak_from_this());
    }
    for (const CalendarRecord& calendar : calendars()) {
      const std::lock_guard lock(mutex_);
      try {
        clientOf(calendar.identifier);
      } catch (const EventError&) {
        // A calendar that cannot be read now is asked for again when it is.
      }
    }
  }

  void noteChange() const { handler_(); }

 private:
  struct Calendar {
    GObjectPtr<ECalClient> client;
    GObjectPtr<ECalClientView> view;  // which tells of changes
    std::list<Connection> connections;
  };
  // What is kept of an identifier: an event, or a recurring one with its changed occurrences.
  struct Item {
    GObjectPtr<ICalComponent> component;  // null when there is none
    EventRecord event;
    std::vector<EventRecord> detached;
  };

  GObjectPtr<ESource> requireSource(const std::string& identifier) {
    GObjectPtr<ESource> source(e_source_registry_ref_source(registry_.get(), identifier.c_str()));
    if (!source) throw EventError(EKErrorNoCalendar, "The store has no such calendar.");
    return source;
  }

  ECalClient* clientOf(const std::string& identifier) {
    const auto known = calendars_.find(identifier);
    if (known != calendars_.end()) return known->second.client.get();
    const GObjectPtr<ESource> source = requireSource(identifier);
    Outcome outcome;
    Calendar calendar;
    calendar.client.reset(E_CAL_CLIENT(e_cal_client_connect_sync(
        source.get(), E_CAL_CLIENT_SOURCE_TYPE_EVENTS, withoutWaiting, nullptr, &outcome)));
    outcome.require(calendar.client != nullptr);
    ECalClientView* view = nullptr;
    outcome.require(
        e_cal_client_get_view_sync(calendar.client.get(), "#t", &view, nullptr, &outcome));
    calendar.view.reset(view);
    for (const char* signal : {"objects-added", "objects-modified", "objects-removed"}) {
      calendar.connections.emplace_back(view, signal, weak_from_this());
    }
    e_cal_client_view_set_flags(view, E_CAL_CLIENT_VIEW_FLAGS_NONE, nullptr);
    e_cal_client_view_start(view, nullptr);
    return calendars_.emplace(identifier, std::move(calendar)).first->second.client.get();
  }

  // The process that serves calendars hears of a new one by itself, a moment later.
  void waitFor(const std::string& identifier) {
    constexpr int mostTries = 500;
    for (int tries = 1;; ++tries) {
      try {
        clientOf(identifier);
        return;
      } catch (const EventError&) {
        if (tries == mostTries) throw;
      }
      g_usleep(10'000);
    }
  }

  // The one that floating and all-day times are expanded in.
  static ICalTimezone* defaultZone() {
    const std::string name = NSTimeZone::defaultTimeZone().name();
    ICalTimezone* const zone = i_cal_timezone_get_builtin_timezone(name.c_str());
    return zone ? zone : i_cal_timezone_get_utc_timezone();
  }

  static bool isInRange(const EventRecord& event, NSDate from, NSDate to) {
    return *event.start < to && (*event.end > from || *event.start >= from);
  }

  // The changed occurrences, and the others as Evolution works them out.
  static void expand(ECalClient* client, const Item& item, NSDate from, NSDate to,
                     const Sink& sink) {
    for (EventRecord event : item.detached) {
      event.calendar = item.event.calendar;
      event.recurrenceRule = item.event.recurrenceRule;
      if (isInRange(event, from, to)) sink(std::move(event));
    }
    if (!item.component) return;
    struct Walk {
      const Item& item;
      NSDate from;
      NSDate to;
      const Sink& sink;
    } walk{item, from, to, sink};
    const auto visit = [](ICalComponent*, ICalTime* start, ICalTime* end, gpointer data,
                          GCancellable*, GError**) -> gboolean {
      const auto& given = *static_cast<Walk*>(data);
      EventRecord event = given.item.event;
      event.exceptionDates.clear();
      event.start = dateOfTime(start, event.isAllDay);
      event.end = dateOfTime(end, event.isAllDay);
      event.occurrenceDate = event.start;
      if (!isDetached(given.item, *event.start) && isInRange(event, given.from, given.to)) {
        given.sink(std::move(event));
      }
      return TRUE;
    };
    // One that began before the range may reach into it.
    const std::int64_t length = microsecondsBetween(*item.event.start, *item.event.end);
    const NSDate earliest = dateAfter(from, -length).dateByAddingSeconds(-1);
    const GObjectPtr<ICalTime> begin(timeOf(std::max(earliest, firstDate)));
    const GObjectPtr<ICalTime> end(timeOf(to));
    Outcome outcome;
    outcome.require(e_cal_recur_generate_instances_sync(
        item.component.get(), begin.get(), end.get(), visit, &walk, &e_cal_client_tzlookup_cb,
        client, defaultZone(), nullptr, &outcome));
  }

  static ICalTime* timeOf(NSDate date) {
    return i_cal_time_new_from_string(date.icsDateString().c_str());
  }

  static bool isDetached(const Item& item, NSDate occurrence) {
    return std::any_of(item.detached.begin(), item.detached.end(),
                       [&](const auto& detached) { return detached.occurrenceDate == occurrence; });
  }

  static void addZone(ECalClient* client, const EventRecord& event) {
    ICalTimezone* const zone = evolutionZone(event);
    if (!zone) return;
    Outcome outcome;
    outcome.require(e_cal_client_add_timezone_sync(client, zone, nullptr, &outcome));
  }

  static Item master(ECalClient* client, const std::string& identifier) {
    Item item;
    Outcome outcome;
    GSList* list = nullptr;
    const bool isFound =
        e_cal_client_get_objects_for_uid_sync(client, identifier.c_str(), &list, nullptr, &outcome);
    const std::unique_ptr<GSList, ComponentListFree> components(list);
    if (!isFound && outcome.isNotFound()) return item;
    outcome.require(isFound);
    for (const GSList* at = list; at; at = at->next) {
      auto* const component = static_cast<ECalComponent*>(at->data);
      ICalComponent* const inner = e_cal_component_get_icalcomponent(component);
      EventRecord event = recordOfComponent(inner, client);
      if (event.isDetached) {
        item.detached.push_back(std::move(event));
      } else {
        item.component.reset(i_cal_component_clone(inner));
        item.event = std::move(event);
      }
    }
    return item;
  }

  Item requireItem(const EventRecord& stored) {
    Item item = master(clientOf(stored.calendar), stored.identifier);
    if (!item.component) {
      throw EventError(EKErrorInternalFailure, "The event is no longer in the store.");
    }
    item.event.calendar = stored.calendar;
    return item;
  }

  static bool isExcluded(const EventRecord& series, NSDate date) {
    const auto& dates = series.exceptionDates;
    return std::find(dates.begin(), dates.end(), date) != dates.end();
  }

  static bool hasEarlier(const Item& item, NSDate before) {
    bool isFound = false;
    forEachOccurrence(item.event, firstDate, before, [&](NSDate start) {
      isFound = !isExcluded(item.event, start);
      return !isFound;
    });
    return isFound;
  }

  static std::optional<EventRecord> firstOccurrence(const Item& item) {
    std::optional<EventRecord> first;
    forEachOccurrence(item.event, firstDate, lastDate, [&](NSDate start) {
      if (isExcluded(item.event, start) || isDetached(item, start)) return true;
      first = item.event;
      first->end = endOfOccurrence(item.event, start);
      first->start = first->occurrenceDate = start;
      return false;
    });
    if (!first && !item.detached.empty()) {
      first = item.detached.front();
      first->calendar = item.event.calendar;
      first->recurrenceRule = item.event.recurrenceRule;
    }
    return first;
  }

  static void requireWhole(const Item& item, EKSpan span) {
    if (item.event.recurrenceRule && span == EKSpan::thisEvent) {
      throw EventError(EKErrorInvalidSpan,
                       "One occurrence cannot have a rule, exceptions or a calendar of its own.");
    }
  }

  static void create(ECalClient* client, const EventRecord& event) {
    const GObjectPtr<ICalComponent> component(i_cal_component_new_vevent());
    i_cal_component_set_uid(component.get(), event.identifier.c_str());
    writeDifferences(component.get(), {}, event);
    Outcome outcome;
    char* identifier = nullptr;
    outcome.require(e_cal_client_create_object_sync(
        client, component.get(), E_CAL_OPERATION_FLAG_NONE, &identifier, nullptr, &outcome));
    g_free(identifier);
  }

  static void modify(ECalClient* client, const Item& item, ECalObjModType mod) {
    Outcome outcome;
    outcome.require(e_cal_client_modify_object_sync(client, item.component.get(), mod,
                                                    E_CAL_OPERATION_FLAG_NONE, nullptr, &outcome));
  }

  static void remove(ECalClient* client, const std::string& identifier,
                     const std::string& occurrence, ECalObjModType mod) {
    Outcome outcome;
    outcome.require(e_cal_client_remove_object_sync(
        client, identifier.c_str(), occurrence.empty() ? nullptr : occurrence.c_str(), mod,
        E_CAL_OPERATION_FLAG_NONE, nullptr, &outcome));
  }

  // Makes the item's component one occurrence of the series.
  static void narrow(const Item& item, NSDate occurrence) {
    EventRecord single = item.event;
    single.start = occurrence;
    single.end = endOfOccurrence(item.event, occurrence);
    single.recurrenceRule.reset();
    writeDifferences(item.component.get(), item.event, single);
    writeOccurrence(item.component.get(), item.event, occurrence);
  }

  static void saveOccurrence(ECalClient* client, Item& item, const EventRecord& stored,
                             EventRecord& event) {
    if (event.recurrenceRule != stored.recurrenceRule ||
        event.exceptionDates != stored.exceptionDates) {
      requireWhole(item, EKSpan::thisEvent);
    }
    const NSDate date = *stored.occurrenceDate;
    Outcome outcome;
    ICalComponent* detached = nullptr;
    if (stored.isDetached) {
      outcome.require(e_cal_client_get_object_sync(client, stored.identifier.c_str(),
                                                   occurrenceName(item.event, date).c_str(),
                                                   &detached, nullptr, &outcome));
      item.component.reset(detached);
    } else {
      narrow(item, date);
    }
    EventRecord before = stored;
    EventRecord after = event;
    before.recurrenceRule.reset();
    after.recurrenceRule.reset();
    writeDifferences(item.component.get(), before, after);
    modify(client, item, E_CAL_OBJ_MOD_THIS);
    event.isDetached = true;
  }

  static void saveFutureOccurrences(ECalClient* client, Item& item, const EventRecord& stored,
                                    EventRecord& event) {
    const NSDate date = *stored.occurrenceDate;
    if (hasEarlier(item, date)) {
      EventRecord here = item.event;
      here.start = date;
      here.end = endOfOccurrence(item.event, date);
      writeDifferences(item.component.get(), item.event, here);
      writeOccurrence(item.component.get(), item.event, date);
      writeDifferences(item.component.get(), stored, event);
      modify(client, item, E_CAL_OBJ_MOD_THIS_AND_FUTURE);
      return;
    }
    EventRecord whole = merged(stored, event, item.event);
    if (!event.hasTimesOf(stored)) {
      const std::int64_t shift = microsecondsBetween(wallTime(*stored.start, stored.wallZone()),
                                                     wallTime(*event.start, event.wallZone()));
      const auto moved = [&](NSDate old) {
        return dateOfWallTime(dateAfter(wallTime(old, item.event.wallZone()), shift),
                              whole.wallZone());
      };
      whole.start = moved(*item.event.start);
      whole.end = endOfOccurrence(event, *whole.start);
      if (event.exceptionDates == stored.exceptionDates) {
        std::transform(whole.exceptionDates.begin(), whole.exceptionDates.end(),
                       whole.exceptionDates.begin(), moved);
      }
    }
    writeDifferences(item.component.get(), item.event, whole);
    modify(client, item, E_CAL_OBJ_MOD_ALL);
  }

  std::mutex mutex_;
  GObjectPtr<ESourceRegistry> registry_;
  std::map<std::string, Calendar> calendars_;
  std::function<void()> handler_;
  std::list<Connection> connections_;
};

void Connection::changed(Receiver* receiver) {
  if (const auto backend = receiver->lock()) backend->noteChange();
}

}  // namespace

std::shared_ptr<EventBackend> openEvolutionEventBackend() {
  const char* const bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!bus || !*bus) {
    throw EventError(EKErrorInternalFailure, "Evolution's event store needs a session bus.");
  }
  return std::make_shared<EvolutionEventBackend>();
}

}  // namespace quillmere
