#include <libecal/libecal.h>
#include <quillmere/platform/dates/CivilDate.h>
#include <quillmere/platform/events/EvolutionComponent.h>
#include <quillmere/platform/events/EvolutionEventBackend.h>
#include <quillmere/platform/events/Recurrence.h>

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
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

constexpr const char* registryService = "org.gnome.evolution.dataserver.Sources5";

// Takes a `GError` in, and throws it when the call has failed.
class Outcome {
 public:
  Outcome() = default;
  Outcome(const Outcome&) = delete;
  Outcome& operator=(const Outcome&) = delete;
  ~Outcome() { clear(); }

  GError** operator&() { return &error_; }  // as the argument of the call
  bool isNotFound() const {
    return g_error_matches(error_, E_CAL_CLIENT_ERROR, E_CAL_CLIENT_ERROR_OBJECT_NOT_FOUND);
  }
  // The service has died: the bus knows nobody of its name, or its successor has no such object, or the
  // proxy has heard of its end and sends nothing, for which GLib has but the code of any failure. What
  // the service itself answers with that code was not carried out either.
  bool isUndelivered() const {
    return isOneOf(G_DBUS_ERROR, {G_DBUS_ERROR_SERVICE_UNKNOWN, G_DBUS_ERROR_NAME_HAS_NO_OWNER,
                                  G_DBUS_ERROR_UNKNOWN_OBJECT, G_DBUS_ERROR_UNKNOWN_METHOD}) ||
           isOneOf(G_IO_ERROR, {G_IO_ERROR_FAILED});
  }
  // The service has died before it answered, and may have done what it was asked for.
  bool isUnanswered() const {
    return isOneOf(G_DBUS_ERROR, {G_DBUS_ERROR_NO_REPLY, G_DBUS_ERROR_DISCONNECTED});
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
  void clear() { g_clear_error(&error_); }

 private:
  bool isOneOf(GQuark domain, std::initializer_list<int> codes) const {
    return std::any_of(codes.begin(), codes.end(),
                       [&](int code) { return g_error_matches(error_, domain, code) != FALSE; });
  }

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

  static void changed(Receiver* receiver) noexcept;
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
    // All stores share the registry, and it is kept for good: its thread would end before GLib has
    // freed there what the registry's proxies need for their signals, and so leak it with every store.
    [[maybe_unused]] static auto* const kept =
        static_cast<ESourceRegistry*>(g_object_ref(registry_.get()));
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
    askRegistry([&](GError** error) {
      return isNew ? e_source_registry_commit_source_sync(registry_.get(), source.get(), nullptr,
                                                          error)
                   : e_source_write_sync(source.get(), nullptr, error);
    });
    if (isNew) waitFor(calendar.identifier);
  }

  void removeCalendar(const std::string& identifier) override {
    const std::lock_guard lock(mutex_);
    const GObjectPtr<ESource> source = requireSource(identifier);
    askRegistry([&](GError** error) { return e_source_remove_sync(source.get(), nullptr, error); });
    calendars_.erase(identifier);
  }

  void readEvents(const std::string& calendar, NSDate from, NSDate to, const Sink& sink) override {
    const std::lock_guard lock(mutex_);
    from = std::clamp(from, firstDate, lastDate);
    to = std::clamp(to, firstDate, lastDate);
    // The service takes wall times for UTC: those of floating and all-day events.
    const NSDate earliest = std::max(from.dateByAddingSeconds(-secondsPerDay), firstDate);
    const NSDate latest = std::min(to.dateByAddingSeconds(secondsPerDay), lastDate);
    // An event at the very beginning, without length, is found by the second before it.
    const std::string query = "(occur-in-time-range? (make-time \"" +
                              earliest.dateByAddingSeconds(-1).icsDateString() +
                              "\") (make-time \"" + latest.icsDateString() + "\"))";
    Outcome outcome;
    GSList* list = nullptr;
    const bool isRead = ask(calendar, Repeated::asOnce, outcome, [&](ECalClient* client) {
      return e_cal_client_get_object_list_sync(client, query.c_str(), &list, nullptr, &outcome);
    });
    const std::unique_ptr<GSList, ComponentListFree> components(list);
    outcome.require(isRead);
    std::set<std::string> series;
    for (const GSList* at = list; at; at = at->next) {
      auto event = recordOfComponent(static_cast<ICalComponent*>(at->data), clientOf(calendar));
      if (!event) continue;
      event->calendar = calendar;
      if (event->isDetached || event->recurrenceRule) {
        series.insert(event->identifier);
      } else if (isInRange(*event, from, to)) {
        sink(std::move(*event));
      }
    }
    for (const std::string& identifier : series) {
      expand(itemOf(calendar, identifier), calendar, from, to, sink);
    }
  }

  // A calendar that cannot be opened is passed over, such as a server's that cannot be reached: others
  // are not to wait for it. When none can be opened nothing is known, and when an open one does not
  // answer the bus is gone: to say that there is no such event would be wrong then.
  void readItems(const std::string& identifier, const Sink& sink) override {
    bool isAnyOpen = false;
    std::optional<EventError> failure;
    for (const CalendarRecord& calendar : calendars()) {
      const std::lock_guard lock(mutex_);
      try {
        clientOf(calendar.identifier);
      } catch (const EventError& thrown) {
        failure = thrown;
        continue;
      }
      isAnyOpen = true;
      Item item = itemOf(calendar.identifier, identifier);
      if (!item.component) continue;
      if (!item.event.recurrenceRule) {
        sink(std::move(item.event));
      } else if (auto first = firstOccurrence(item)) {
        sink(std::move(*first));
      }
    }
    if (failure && !isAnyOpen) throw EventError(*failure);
  }

  void saveEvent(const EventRecord* stored, EventRecord& event, EKSpan span) override {
    const std::lock_guard lock(mutex_);
    if (event.recurrenceRule) requireRecurrenceRule(event);
    addZone(event);
    if (!stored) {
      const GObjectPtr<ICalComponent> component(i_cal_component_new_vevent());
      i_cal_component_set_uid(component.get(), event.identifier.c_str());
      writeDifferences(component.get(), {}, event);
      event.identifier = create(event.calendar, component.get());
    } else {
      const Item item = requireItem(*stored);
      if (!item.event.recurrenceRule) {
        saveWhole(item, *stored, event);
      } else if (span == EKSpan::thisEvent) {
        saveOccurrence(item, *stored, event);
      } else {
        saveFutureOccurrences(item, *stored, event);
      }
    }
    if (!event.isDetached) event.occurrenceDate = event.start;
    const Item saved = itemOf(event.calendar, event.identifier);
    const Occurrence* const own = detachedAt(saved, *event.occurrenceDate);
    const auto& modified = own ? own->event.lastModified : saved.event.lastModified;
    event.lastModified = modified ? modified : NSDate::date();
  }

  void removeEvent(const EventRecord& stored, EKSpan span) override {
    const std::lock_guard lock(mutex_);
    const Item item = requireItem(stored);
    const NSDate date = *stored.occurrenceDate;
    const bool isWhole =
        !item.event.recurrenceRule || (span == EKSpan::futureEvents && !hasEarlier(item, date));
    if (isWhole) {
      remove(stored, "", E_CAL_OBJ_MOD_ALL);
      return;
    }
    remove(stored, nameOf(item, date),
           span == EKSpan::thisEvent ? E_CAL_OBJ_MOD_THIS : E_CAL_OBJ_MOD_THIS_AND_FUTURE);
    const Item left = itemOf(stored.calendar, stored.identifier);
    if (left.component && !hasEarlier(left, lastDate)) remove(stored, "", E_CAL_OBJ_MOD_ALL);
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
  struct Occurrence {
    GObjectPtr<ICalComponent> component;
    EventRecord event;
  };
  // What is kept of an identifier: an event, or a recurring one with its changed occurrences.
  struct Item {
    GObjectPtr<ICalComponent> component;  // null when there is none
    EventRecord event;
    std::vector<Occurrence> detached;
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

  // Whether a request that is carried out twice comes to the same as once.
  enum class Repeated : std::uint8_t { asOnce, isMore };

  // Puts a request to a calendar, and once more over a new connection, for which the bus starts the
  // service again, when the service has died. What has not reached it may be repeated whatever it is.
  // Of what has, and was not answered, that may be repeated which comes to the same as once: a
  // question, a time zone, a component written over the one that is there, a removal. A new component
  // could be there twice then: see `create`. Whether the last answer was a good one.
  template <class Request>
  bool ask(const std::string& calendar, Repeated repeated, Outcome& outcome,
           const Request& request) {
    if (request(clientOf(calendar))) return true;
    const bool isUndelivered = outcome.isUndelivered();
    if (!isUndelivered && !outcome.isUnanswered()) return false;
    calendars_.erase(calendar);
    if (!isUndelivered && repeated == Repeated::isMore) return false;
    outcome.clear();
    if (!request(clientOf(calendar))) return false;
    handler_();  // what has changed in between was not heard of
    return true;
  }

  // Puts a request to the registry of calendars, which hears by itself, a moment later, that its
  // service was started again. A request to a service that is not there has not been carried out.
  template <class Request>
  static void askRegistry(const Request& request) {
    constexpr int mostTries = 200;
    for (int tries = 1;; ++tries) {
      Outcome outcome;
      if (request(&outcome)) return;
      outcome.require(outcome.isUndelivered() && tries != mostTries);
      if (tries == 1) startRegistryService();
      g_usleep(10'000);
    }
  }

  static void startRegistryService() {
    Outcome outcome;
    const GObjectPtr<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &outcome));
    outcome.require(bus != nullptr);
    const std::unique_ptr<GVariant, decltype(&g_variant_unref)> answer(
        g_dbus_connection_call_sync(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "StartServiceByName",
                                    g_variant_new("(su)", registryService, 0U), nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &outcome),
        &g_variant_unref);
    outcome.require(answer != nullptr);
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

  // The changed occurrences, and the others as Evolution works them out.
  void expand(const Item& item, const std::string& calendar, NSDate from, NSDate to,
              const Sink& sink) {
    for (const Occurrence& detached : item.detached) {
      if (isInRange(detached.event, from, to)) sink(detached.event);
    }
    if (!item.component) return;
    // One that began before the range may reach into it.
    const std::int64_t length = microsecondsBetween(*item.event.start, *item.event.end);
    const NSDate earliest = std::max(dateAfter(from, -length).dateByAddingSeconds(-1), firstDate);
    forEachInstance(item, calendar, earliest, to, [&](NSDate start, NSDate end) {
      if (detachedAt(item, start)) return;
      EventRecord event = item.event;
      event.exceptionDates.clear();
      event.start = event.occurrenceDate = start;
      event.end = end;
      if (isInRange(event, from, to)) sink(std::move(event));
    });
  }

  using InstanceVisitor = std::function<void(NSDate start, NSDate end)>;

  void forEachInstance(const Item& item, const std::string& calendar, NSDate from, NSDate to,
                       const InstanceVisitor& visit) {
    struct Walk {
      const Item& item;
      const InstanceVisitor& visit;
      int count = 0;
    } walk{item, visit};
    const auto next = [](ICalComponent*, ICalTime* start, ICalTime* end, gpointer data,
                         GCancellable*, GError**) noexcept -> gboolean {
      auto& given = *static_cast<Walk*>(data);
      const bool isAllDay = given.item.event.isAllDay;
      given.visit(dateOfTime(start, isAllDay), dateOfTime(end, isAllDay));
      return ++given.count < mostOccurrences ? TRUE : FALSE;
    };
    const GObjectPtr<ICalTime> begin(timeOf(from));
    const GObjectPtr<ICalTime> end(timeOf(to));
    Outcome outcome;
    const bool isAll = e_cal_recur_generate_instances_sync(
        item.component.get(), begin.get(), end.get(), next, &walk, &e_cal_client_tzlookup_cb,
        clientOf(calendar), defaultZone(), nullptr, &outcome);
    outcome.require(isAll || walk.count == mostOccurrences);
  }

  static ICalTime* timeOf(NSDate date) {
    return i_cal_time_new_from_string(date.icsDateString().c_str());
  }

  // Null when the occurrence was not changed.
  static const Occurrence* detachedAt(const Item& item, NSDate occurrence) {
    const auto found = std::find_if(
        item.detached.begin(), item.detached.end(),
        [&](const auto& detached) { return detached.event.occurrenceDate == occurrence; });
    return found == item.detached.end() ? nullptr : &*found;
  }

  static std::string nameOf(const Item& item, NSDate occurrence) {
    const Occurrence* const detached = detachedAt(item, occurrence);
    return detached ? occurrenceName(detached->component.get())
                    : occurrenceName(item.event, occurrence);
  }

  void addZone(const EventRecord& event) {
    ICalTimezone* const zone = evolutionZone(event);
    if (!zone) return;
    Outcome outcome;
    outcome.require(ask(event.calendar, Repeated::asOnce, outcome, [&](ECalClient* client) {
      return e_cal_client_add_timezone_sync(client, zone, nullptr, &outcome);
    }));
  }

  Item itemOf(const std::string& calendar, const std::string& identifier) {
    Item item;
    Outcome outcome;
    GSList* list = nullptr;
    const bool isFound = ask(calendar, Repeated::asOnce, outcome, [&](ECalClient* client) {
      return e_cal_client_get_objects_for_uid_sync(client, identifier.c_str(), &list, nullptr,
                                                   &outcome);
    });
    const std::unique_ptr<GSList, ComponentListFree> components(list);
    if (!isFound && outcome.isNotFound()) return item;
    outcome.require(isFound);
    for (const GSList* at = list; at; at = at->next) {
      ICalComponent* const inner =
          e_cal_component_get_icalcomponent(static_cast<ECalComponent*>(at->data));
      auto event = recordOfComponent(inner, clientOf(calendar));
      if (!event) continue;
      event->calendar = calendar;
      GObjectPtr<ICalComponent> component(i_cal_component_clone(inner));
      if (event->isDetached) {
        item.detached.push_back({std::move(component), std::move(*event)});
      } else {
        item.component = std::move(component);
        item.event = std::move(*event);
      }
    }
    std::sort(item.detached.begin(), item.detached.end(), [](const auto& a, const auto& b) {
      return *a.event.occurrenceDate < *b.event.occurrenceDate;
    });
    for (Occurrence& detached : item.detached) {
      detached.event.recurrenceRule = item.event.recurrenceRule;
    }
    return item;
  }

  // The event, or whole series, that a fetched event is part of. Another may have removed the
  // occurrence that was fetched, or moved the series away from it.
  Item requireItem(const EventRecord& stored) {
    Item item = itemOf(stored.calendar, stored.identifier);
    if (!item.component) {
      throw EventError(EKErrorInternalFailure, "The event is no longer in the store.");
    }
    const NSDate date = *stored.occurrenceDate;
    bool isLeft = detachedAt(item, date) != nullptr;
    if (!item.event.recurrenceRule) {
      isLeft = !stored.recurrenceRule || date == item.event.start;
    } else if (!isLeft) {
      forEachInstance(item, stored.calendar, date.dateByAddingSeconds(-1),
                      date.dateByAddingSeconds(1),
                      [&](NSDate start, NSDate) { isLeft = isLeft || start == date; });
    }
    if (!isLeft) throw EventError(EKErrorInternalFailure, "The occurrence is no longer there.");
    return item;
  }

  static bool isExcluded(const EventRecord& series, NSDate date) {
    const auto& dates = series.exceptionDates;
    return std::find(dates.begin(), dates.end(), date) != dates.end();
  }

  // The first time, before `before`, of an occurrence that is left, changed or not. One that was
  // changed may stand for a time that the rule no longer gives.
  static std::optional<NSDate> firstTimeLeft(const Item& item, NSDate before) {
    std::optional<NSDate> first;
    forEachOccurrence(item.event, firstDate, before, [&](NSDate start) {
      if (!isExcluded(item.event, start)) first = start;
      return !first;
    });
    if (item.detached.empty()) return first;
    const NSDate changed = *item.detached.front().event.occurrenceDate;
    if (changed >= before) return first;
    return std::min(first.value_or(changed), changed);
  }

  static bool hasEarlier(const Item& item, NSDate date) {
    return firstTimeLeft(item, date).has_value();
  }

  static std::optional<EventRecord> firstOccurrence(const Item& item) {
    const auto time = firstTimeLeft(item, lastDate);
    if (!time) return std::nullopt;
    const Occurrence* const detached = detachedAt(item, *time);
    EventRecord first = detached ? detached->event : occurrenceOf(item.event, *time);
    first.exceptionDates = item.event.exceptionDates;
    return first;
  }

  // The identifier, for which the calendar may have taken another. So a request without an answer is
  // not repeated: either what is new is found under the identifier that it was given, or nobody knows.
  std::string create(const std::string& calendar, ICalComponent* component) {
    Outcome outcome;
    char* given = nullptr;
    const bool isMade = ask(calendar, Repeated::isMore, outcome, [&](ECalClient* client) {
      return e_cal_client_create_object_sync(client, component, E_CAL_OPERATION_FLAG_NONE, &given,
                                             nullptr, &outcome);
    });
    const std::unique_ptr<char, decltype(&g_free)> identifier(given, &g_free);
    const std::string wanted = i_cal_component_get_uid(component);
    outcome.require(isMade || (outcome.isUnanswered() && itemOf(calendar, wanted).component));
    return given ? given : wanted;
  }

  void modify(const std::string& calendar, ICalComponent* component, ECalObjModType mod) {
    Outcome outcome;
    outcome.require(ask(calendar, Repeated::asOnce, outcome, [&](ECalClient* client) {
      return e_cal_client_modify_object_sync(client, component, mod, E_CAL_OPERATION_FLAG_NONE,
                                             nullptr, &outcome);
    }));
  }

  // What is not there when it is to be removed for the second time was removed the first time.
  void remove(const EventRecord& stored, const std::string& occurrence, ECalObjModType mod) {
    Outcome outcome;
    int requests = 0;
    const bool isRemoved = ask(stored.calendar, Repeated::asOnce, outcome, [&](ECalClient* client) {
      ++requests;
      return e_cal_client_remove_object_sync(client, stored.identifier.c_str(),
                                             occurrence.empty() ? nullptr : occurrence.c_str(), mod,
                                             E_CAL_OPERATION_FLAG_NONE, nullptr, &outcome);
    });
    outcome.require(isRemoved || (requests == 2 && outcome.isNotFound()));
  }

  static GObjectPtr<ICalComponent> copyOf(const GObjectPtr<ICalComponent>& component) {
    return GObjectPtr<ICalComponent>(i_cal_component_clone(component.get()));
  }

  // An event that is not repeated.
  void saveWhole(const Item& item, const EventRecord& stored, EventRecord& event) {
    writeDifferences(item.component.get(), stored, event);
    event = merged(stored, event, item.event);
    if (event.calendar == stored.calendar) {
      modify(event.calendar, item.component.get(), E_CAL_OBJ_MOD_ALL);
    } else {
      event.identifier = create(event.calendar, item.component.get());
      remove(stored, "", E_CAL_OBJ_MOD_ALL);
    }
  }

  static EventRecord withoutRule(EventRecord event) {
    event.recurrenceRule.reset();
    return event;
  }

  void saveOccurrence(const Item& item, const EventRecord& stored, EventRecord& event) {
    requireChangeOfOneOccurrence(stored, event);
    const NSDate date = *stored.occurrenceDate;
    const Occurrence* const detached = detachedAt(item, date);
    const EventRecord current = detached ? detached->event : occurrenceOf(item.event, date);
    const auto component = copyOf(detached ? detached->component : item.component);
    if (!detached) {
      writeDifferences(component.get(), item.event, withoutRule(current));
      writeOccurrence(component.get(), item.event, date);
    }
    writeDifferences(component.get(), withoutRule(stored), withoutRule(event));
    modify(stored.calendar, component.get(), E_CAL_OBJ_MOD_THIS);
    event = merged(stored, event, current);
    event.isDetached = true;
  }

  // Changes the series from an occurrence on: the whole series when nothing is left before it, else
  // makes a new one of the rest. Evolution's own way to do so drops the changed occurrences and does
  // not tell the new identifier. What is new is written before the old is ended, so that a failure in
  // between loses nothing of it.
  void saveFutureOccurrences(const Item& item, const EventRecord& stored, EventRecord& event) {
    const NSDate date = *stored.occurrenceDate;
    const bool isWhole = !hasEarlier(item, date);
    const bool isNew = !isWhole || event.calendar != stored.calendar;
    const SeriesChange change(item.event, stored, event, isWhole);
    EventRecord changed = change.series();
    const auto series = copyOf(item.component);
    writeDifferences(series.get(), item.event, changed);
    // The changed occurrences have to be written for other times, or are over with the rule.
    const bool isEachNew = isNew || !event.hasTimesOf(stored) || !changed.recurrenceRule;
    if (isNew) {
      i_cal_component_set_uid(series.get(), changed.identifier.c_str());
      changed.identifier = create(event.calendar, series.get());
    } else {
      for (const Occurrence& detached : item.detached) {
        if (!isEachNew) break;
        remove(stored, occurrenceName(detached.component.get()), E_CAL_OBJ_MOD_ONLY_THIS);
      }
      modify(stored.calendar, series.get(), E_CAL_OBJ_MOD_ALL);
    }

    EventRecord saved = occurrenceOf(changed, change.moved(date));
    for (const Occurrence& detached : item.detached) {
      const NSDate old = *detached.event.occurrenceDate;
      const bool isOwn = stored.isDetached && old == date;
      if (!changed.recurrenceRule || (!isWhole && old < date) || (!isEachNew && !isOwn)) continue;
      const auto component = copyOf(detached.component);
      i_cal_component_set_uid(component.get(), changed.identifier.c_str());
      writeOccurrence(component.get(), changed, change.moved(old));
      if (isOwn) {
        writeDifferences(component.get(), withoutRule(stored), withoutRule(event));
        saved = merged(stored, event, detached.event);
        saved.identifier = changed.identifier;
        saved.recurrenceRule = changed.recurrenceRule;
        saved.occurrenceDate = change.moved(old);
      }
      modify(event.calendar, component.get(), E_CAL_OBJ_MOD_THIS);
    }
    if (isNew && isWhole) {
      remove(stored, "", E_CAL_OBJ_MOD_ALL);
    } else if (isNew) {
      remove(stored, nameOf(item, date), E_CAL_OBJ_MOD_THIS_AND_FUTURE);
    }
    event = std::move(saved);
  }

  std::mutex mutex_;
  GObjectPtr<ESourceRegistry> registry_;
  std::map<std::string, Calendar> calendars_;
  std::function<void()> handler_;
  std::list<Connection> connections_;
};

void Connection::changed(Receiver* receiver) noexcept {
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
