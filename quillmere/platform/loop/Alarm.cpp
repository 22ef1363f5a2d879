#include <quillmere/platform/loop/Alarm.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace quillmere {

int millisecondsUntil(gint64 time) {
  if (time == Alarm::never) return -1;
  constexpr gint64 microsecondsPerMillisecond = 1000;
  const gint64 wait = time - g_get_monotonic_time();
  if (wait <= 0) return 0;
  const gint64 roundedUp = (wait + microsecondsPerMillisecond - 1) / microsecondsPerMillisecond;
  return static_cast<int>(std::min<gint64>(roundedUp, std::numeric_limits<int>::max()));
}

// The source asks for its time in every turn of the loop. GLib's own ready time would do, but setting
// that wakes the loop, also from its own thread.
struct Alarm::Source {
  GSource base;
  Alarm* alarm;
  gint64 time;
};

Alarm::Alarm(GMainContext* context, std::function<void()> ring)
    : ring_(std::make_shared<const std::function<void()>>(std::move(ring))) {
  static GSourceFuncs functions{&Alarm::prepare, &Alarm::check, &Alarm::dispatch,
                                nullptr,         nullptr,       nullptr};
  source_ = g_source_new(&functions, sizeof(Source));
  reinterpret_cast<Source*>(source_)->alarm = this;
  setTime(never);
  g_source_attach(source_, context);
}

Alarm::~Alarm() {
  g_source_destroy(source_);
  g_source_unref(source_);
}

void Alarm::setTime(gint64 time) { reinterpret_cast<Source*>(source_)->time = time; }

gboolean Alarm::prepare(GSource* source, gint* timeout) {
  *timeout = millisecondsUntil(reinterpret_cast<Source*>(source)->time);
  return *timeout == 0;
}

gboolean Alarm::check(GSource* source) {
  gint timeout = 0;
  return prepare(source, &timeout);
}

gboolean Alarm::dispatch(GSource* source, GSourceFunc, void*) noexcept {
  Alarm& alarm = *reinterpret_cast<Source*>(source)->alarm;
  alarm.setTime(never);
  const auto ring = alarm.ring_;
  (*ring)();
  return G_SOURCE_CONTINUE;
}

}  // namespace quillmere
