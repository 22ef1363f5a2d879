#ifndef QUILLMERE_PLATFORM_LOOP_NSOPERATIONQUEUE_H
#define QUILLMERE_PLATFORM_LOOP_NSOPERATIONQUEUE_H

#include <quillmere/platform/base/Export.h>

#include <functional>
#include <memory>
#include <utility>

namespace quillmere {

/// A queue of operations that a run loop carries out one after another: a handle on a GLib main
/// context (`GMainContext`), to be copied freely. Queues are equal when their contexts are.
///
/// Any thread may add operations; they run on the thread that runs the context's loop.
class QUILLMERE_EXPORT NSOperationQueue {
 public:
  /// The queue of the default main context, which a GTK host and, on Linux, a Qt host run anyway.
  /// Other hosts run it with `NSRunLoop::mainRunLoop()`.
  static NSOperationQueue mainQueue();

  /// The queue of the calling thread: that of its thread-default context, else the main queue.
  static NSOperationQueue currentQueue();

  /// Appends an operation. It is never carried out before this returns, and is dropped when its
  /// context goes away without having run.
  void addOperationWithBlock(std::function<void()> block) const;

  friend bool operator==(const NSOperationQueue&, const NSOperationQueue&) = default;

 private:
  friend struct ContextAccess;
  explicit NSOperationQueue(std::shared_ptr<void> context) : context_(std::move(context)) {}

  std::shared_ptr<void> context_;  // a GMainContext
};

}  // namespace quillmere

#endif
