#include <quillmere/platform/loop/Alarm.h>
#include <quillmere/platform/loop/MainContext.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <algorithm>

namespace quillmere {
namespace {

// A run in progress on this thread; the innermost of all loops comes first.
struct Run {
  const NSOperationQueue* queue;
  Run* outer;
  bool isStopped = false;
};
thread_local Run* innermostRun = nullptr;

}  // namespace

bool NSRunLoop::runUntilDate(std::optional<NSDate> date) const {
  GMainContext* context = ContextAccess::contextOf(queue_);
  bool isOver = false;
  Alarm alarm(context, [&isOver] { isOver = true; });
  if (date) {
    const NSDate now = NSDate::date();
    const gint64 wait = std::max(*date, now).microsecondsSince1970() - now.microsecondsSince1970();
    alarm.setTime(g_get_monotonic_time() + wait);
  }
  Run run{&queue_, innermostRun};  // from here on nothing throws
  innermostRun = &run;
  while (!run.isStopped && !isOver) g_main_context_iteration(context, TRUE);
  innermostRun = run.outer;
  return run.isStopped;
}

void NSRunLoop::stop() const {
  for (Run* run = innermostRun; run; run = run->outer) {
    if (*run->queue != queue_ || run->isStopped) continue;
    run->isStopped = true;
    return;
  }
}

}  // namespace quillmere
