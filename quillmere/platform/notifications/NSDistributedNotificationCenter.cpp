#include <gio/gio.h>
#include <quillmere/platform/loop/NSOperationQueue.h>
#include <quillmere/platform/notifications/NSDistributedNotificationCenter.h>
#include <quillmere/platform/notifications/ObserverList.h>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace quillmere {
namespace {

using Observers = ObserverList<NSDistributedNotification>;

constexpr const char* busPath = "/org/quillmere/NotificationCenter";
constexpr const char* busInterface = "org.quillmere.NotificationCenter";
constexpr const char* busSignal = "Posted";
constexpr const char* matchRule =
    "type='signal',path='/org/quillmere/NotificationCenter',"
    "interface='org.quillmere.NotificationCenter',member='Posted'";
// Name; object, none or one; user info. Texts travel as bytes, since a D-Bus string must be UTF-8
// and ends at a zero. A value says by its own type what it is: text (s) as a structure of bytes.
constexpr const char* signature = "(ayaaya(ayv))";

template <class Object>
using Owned = std::unique_ptr<Object, decltype(&g_object_unref)>;
using OwnedVariant = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

OwnedVariant owned(GVariant* variant) { return {variant, &g_variant_unref}; }

GVariant* bytesVariant(std::string_view bytes) {
  return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

std::string bytesOf(GVariant* variant) {
  gsize length = 0;
  const auto* bytes = static_cast<const char*>(g_variant_get_fixed_array(variant, &length, 1));
  return length == 0 ? std::string() : std::string(bytes, length);
}

GVariant* variantOf(const NSNotificationUserInfo::mapped_type& value) {
  return std::visit(
      [](const auto& held) -> GVariant* {
        using Value = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Value, std::string>) {
          GVariant* const bytes = bytesVariant(held);
          return g_variant_new_tuple(&bytes, 1);
        } else if constexpr (std::is_same_v<Value, NSData>) {
          return bytesVariant(held.view());
        } else if constexpr (std::is_same_v<Value, std::int64_t>) {
          return g_variant_new_int64(held);
        } else if constexpr (std::is_same_v<Value, double>) {
          return g_variant_new_double(held);
        } else {
          return g_variant_new_boolean(held);
        }
      },
      value);
}

// Null for a value that this version does not know.
std::optional<NSNotificationUserInfo::mapped_type> valueOf(GVariant* variant) {
  const std::string_view type = g_variant_get_type_string(variant);
  if (type == "(ay)") return bytesOf(owned(g_variant_get_child_value(variant, 0)).get());
  if (type == "ay") return NSData::dataWithString(bytesOf(variant));
  if (type == "x") return std::int64_t{g_variant_get_int64(variant)};
  if (type == "d") return g_variant_get_double(variant);
  if (type == "b") return g_variant_get_boolean(variant) != FALSE;
  return std::nullopt;
}

GVariant* encoded(const NSDistributedNotification& notification) {
  GVariantBuilder object;
  g_variant_builder_init(&object, G_VARIANT_TYPE("aay"));
  if (notification.object) g_variant_builder_add_value(&object, bytesVariant(*notification.object));
  GVariantBuilder userInfo;
  g_variant_builder_init(&userInfo, G_VARIANT_TYPE("a(ayv)"));
  for (const auto& [key, value] : notification.userInfo) {
    g_variant_builder_add(&userInfo, "(@ayv)", bytesVariant(key), variantOf(value));
  }
  return g_variant_new("(@ay@aay@a(ayv))", bytesVariant(notification.name),
                       g_variant_builder_end(&object), g_variant_builder_end(&userInfo));
}

NSDistributedNotification decoded(GVariant* body) {
  NSDistributedNotification notification;
  notification.name = bytesOf(owned(g_variant_get_child_value(body, 0)).get());
  const auto objects = owned(g_variant_get_child_value(body, 1));
  if (g_variant_n_children(objects.get()) != 0) {
    notification.object = bytesOf(owned(g_variant_get_child_value(objects.get(), 0)).get());
  }
  const auto userInfo = owned(g_variant_get_child_value(body, 2));
  for (gsize i = 0; i != g_variant_n_children(userInfo.get()); ++i) {
    const auto entry = owned(g_variant_get_child_value(userInfo.get(), i));
    const auto boxed = owned(g_variant_get_child_value(entry.get(), 1));
    auto value = valueOf(owned(g_variant_get_variant(boxed.get())).get());
    if (!value) continue;
    std::string key = bytesOf(owned(g_variant_get_child_value(entry.get(), 0)).get());
    notification.userInfo.emplace(std::move(key), std::move(*value));
  }
  return notification;
}

void callOnMainQueue(const std::weak_ptr<Observers>& observers,
                     NSDistributedNotification notification) {
  NSOperationQueue::mainQueue().addOperationWithBlock(
      [observers, notification = std::move(notification)] {
        if (const auto list = observers.lock()) list->call(notification);
      });
}

}  // namespace

// The way to the session's other processes. It has a connection of its own, since the process's
// shared one ends the process when the bus goes away. All but `hear` runs on the main queue: so
// nobody waits for a bus that takes long to answer, and notifications keep their order.
class NSDistributedNotificationCenter::Bus : public std::enable_shared_from_this<Bus> {
 public:
  explicit Bus(std::weak_ptr<Observers> observers) : observers_(std::move(observers)) {}
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  ~Bus() {
    if (attempt_) g_cancellable_cancel(attempt_.get());
    if (connection_) g_dbus_connection_remove_filter(connection_.get(), filter_);
  }

  // Listens to the session's bus, if there is one and it is not listened to already.
  void connect() {
    if (attempt_ || (connection_ && !g_dbus_connection_is_closed(connection_.get()))) return;
    const char* const address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!address || !*address) return;
    attempt_.reset(g_cancellable_new());
    g_main_context_push_thread_default(nullptr);  // its end is told on the main queue too
    g_dbus_connection_new_for_address(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, attempt_.get(), &Bus::endAttempt,
        std::make_unique<std::weak_ptr<Bus>>(weak_from_this()).release());
    g_main_context_pop_thread_default(nullptr);
  }

  void post(const NSDistributedNotification& notification) {
    connect();
    OwnedVariant body(g_variant_ref_sink(encoded(notification)), &g_variant_unref);
    if (!attempt_) {
      emit(body.get());
    } else if (waiting_.size() < mostWaiting) {
      waiting_.push_back(std::move(body));
    }
  }

 private:
  static constexpr std::size_t mostWaiting = 1'000;

  void emit(GVariant* body) const {
    if (!connection_) return;
    g_dbus_connection_emit_signal(connection_.get(), nullptr, busPath, busInterface, busSignal,
                                  body, nullptr);
  }

  static void endAttempt(GObject*, GAsyncResult* result, void* data) noexcept {
    const std::unique_ptr<std::weak_ptr<Bus>> weak(static_cast<std::weak_ptr<Bus>*>(data));
    Owned<GDBusConnection> connection(g_dbus_connection_new_for_address_finish(result, nullptr),
                                      &g_object_unref);
    if (const auto bus = weak->lock()) bus->use(std::move(connection));
  }

  // Null means that there is no such bus: then what has waited for it is dropped.
  void use(Owned<GDBusConnection> connection) {
    attempt_.reset();
    if (connection_) g_dbus_connection_remove_filter(connection_.get(), filter_);
    connection_ = std::move(connection);
    if (connection_) listen();
    for (const OwnedVariant& body : std::exchange(waiting_, {})) emit(body.get());
  }

  void listen() {
    // A filter hears on the connection's own thread, whichever loop this one runs; a subscription
    // would hear where this thread's default context is run.
    const auto drop = [](void* data) { delete static_cast<std::weak_ptr<Observers>*>(data); };
    auto observers = std::make_unique<std::weak_ptr<Observers>>(observers_);
    filter_ =
        g_dbus_connection_add_filter(connection_.get(), &Bus::hear, observers.release(), drop);
    g_dbus_connection_call(connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "AddMatch", g_variant_new("(s)", matchRule),
                           nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
  }

  static GDBusMessage* hear(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming,
                            void* data) noexcept {
    // The process's own observers have been told without the bus.
    const bool isOthers = isIncoming && g_strcmp0(g_dbus_message_get_sender(message),
                                                  g_dbus_connection_get_unique_name(connection));
    GVariant* const body = g_dbus_message_get_body(message);
    if (isOthers && body &&
        g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL &&
        g_strcmp0(g_dbus_message_get_interface(message), busInterface) == 0 &&
        g_strcmp0(g_dbus_message_get_member(message), busSignal) == 0 &&
        g_variant_is_of_type(body, G_VARIANT_TYPE(signature))) {
      callOnMainQueue(*static_cast<std::weak_ptr<Observers>*>(data), decoded(body));
    }
    return message;
  }

  std::weak_ptr<Observers> observers_;
  Owned<GCancellable> attempt_{nullptr, &g_object_unref};  // null unless it is connecting
  std::vector<OwnedVariant> waiting_;                      // for the end of the attempt
  Owned<GDBusConnection> connection_{nullptr, &g_object_unref};
  guint filter_ = 0;
};

NSDistributedNotificationCenter& NSDistributedNotificationCenter::defaultCenter() {
  static NSDistributedNotificationCenter center;
  return center;
}

NSDistributedNotificationCenter::NSDistributedNotificationCenter()
    : observers_(std::make_shared<Observers>()), bus_(std::make_shared<Bus>(observers_)) {}

NSDistributedNotificationCenter::~NSDistributedNotificationCenter() = default;

std::shared_ptr<NSNotificationObservation>
NSDistributedNotificationCenter::addObserverForName_object_usingBlock(
    std::optional<std::string> name, std::optional<std::string> object,
    std::function<void(const NSDistributedNotification&)> block) {
  NSOperationQueue::mainQueue().addOperationWithBlock([bus = std::weak_ptr<Bus>(bus_)] {
    if (const auto known = bus.lock()) known->connect();
  });
  auto filter = [name = std::move(name),
                 object = std::move(object)](const NSDistributedNotification& notification) {
    return (!name || notification.name == *name) && (!object || notification.object == object);
  };
  return observers_->add(std::move(filter), std::move(block));
}

void NSDistributedNotificationCenter::removeObserver(
    const std::shared_ptr<NSNotificationObservation>& observation) {
  observers_->remove(observation);
}

void NSDistributedNotificationCenter::postNotificationName_object_userInfo(
    std::string name, std::optional<std::string> object, NSNotificationUserInfo userInfo) {
  NSOperationQueue::mainQueue().addOperationWithBlock(
      [bus = std::weak_ptr<Bus>(bus_), observers = std::weak_ptr<Observers>(observers_),
       notification =
           NSDistributedNotification{std::move(name), std::move(object), std::move(userInfo)}] {
        if (const auto known = bus.lock()) known->post(notification);
        if (const auto known = observers.lock()) known->call(notification);
      });
}

}  // namespace quillmere
