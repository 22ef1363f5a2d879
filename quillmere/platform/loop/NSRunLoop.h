#ifndef QUILLMERE_PLATFORM_LOOP_NSRUNLOOP_H
#define QUILLMERE_PLATFORM_LOOP_NSRUNLOOP_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/loop/NSOperationQueue.h>

#include <optional>
#include <utility>

namespace quillmere {

/// The loop that carries out a queue's operations and everything that waits for network or time,
/// for hosts that have no loop of their own: a thin handle on a GLib main context. It sleeps while
/// nothing happens.
class QUILLMERE_EXPORT NSRunLoop {
 public:
  /// The loop of the main queue.
  static NSRunLoop mainRunLoop() { return NSRunLoop(NSOperationQueue::mainQueue()); }
  /// The loop of the calling thread's queue.
  static NSRunLoop currentRunLoop() { return NSRunLoop(NSOperationQueue::currentQueue()); }

  /// Runs until `stop`, on the calling thread. May be called again from within an operation; then
  /// `stop` ends the inner one.
  void run() const { runUntilDate(std::nullopt); }

  /// Runs until that date or until `stop`, whichever comes first; null is until `stop`. A date in
  /// the past carries out what is ready now. Whether `stop` ended it.
  bool runUntilDate(std::optional<NSDate> date) const;

  /// Makes the innermost `run` or `runUntilDate` of this loop return once the present operation has
  /// ended. Without one it does nothing. Called on the loop's thread.
  void stop() const;

 private:
  explicit NSRunLoop(NSOperationQueue queue) : queue_(std::move(queue)) {}

  NSOperationQueue queue_;
};

}  // namespace quillmere

#endif
