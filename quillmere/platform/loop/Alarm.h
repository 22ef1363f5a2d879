#ifndef QUILLMERE_PLATFORM_LOOP_ALARM_H
#define QUILLMERE_PLATFORM_LOOP_ALARM_H

#include <glib.h>

#include <functional>
#include <memory>

// Internal: timers of a run loop.
namespace quillmere {

/// Calls a function from a loop at a time, every time one is set. May be destroyed in that call.
class Alarm {
 public:
  Alarm(GMainContext* context, std::function<void()> ring);
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;
  ~Alarm();

  /// In the time of `g_get_monotonic_time`; -1 for never.
  void setTime(gint64 time) { g_source_set_ready_time(source_, time); }

 private:
  struct Source;
  static gboolean dispatch(GSource* source, GSourceFunc, void*);

  std::shared_ptr<const std::function<void()>> ring_;
  GSource* source_;
};

}  // namespace quillmere

#endif
