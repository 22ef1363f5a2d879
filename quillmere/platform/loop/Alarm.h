#ifndef QUILLMERE_PLATFORM_LOOP_ALARM_H
#define QUILLMERE_PLATFORM_LOOP_ALARM_H

#include <glib.h>

#include <functional>
#include <memory>

// Internal: timers of a run loop.
namespace quillmere {

/// How long a loop may sleep until a time: -1 for ever, 0 when it has come.
int millisecondsUntil(gint64 time);

/// Calls a function from a loop at a time, every time one is set. May be destroyed in that call.
class Alarm {
 public:
  static constexpr gint64 never = -1;

  Alarm(GMainContext* context, std::function<void()> ring);
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;
  ~Alarm();

  /// In the time of `g_get_monotonic_time`, or `never`. Called on the loop's thread: a loop that
  /// sleeps on another is not woken.
  void setTime(gint64 time);

 private:
  struct Source;
  static gboolean prepare(GSource* source, gint* timeout);
  static gboolean check(GSource* source);
  static gboolean dispatch(GSource* source, GSourceFunc, void*) noexcept;

  std::shared_ptr<const std::function<void()>> ring_;
  GSource* source_;
};

}  // namespace quillmere

#endif
