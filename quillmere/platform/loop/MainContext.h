#ifndef QUILLMERE_PLATFORM_LOOP_MAINCONTEXT_H
#define QUILLMERE_PLATFORM_LOOP_MAINCONTEXT_H

#include <glib.h>
#include <quillmere/platform/loop/NSOperationQueue.h>

// Internal: the way from a queue to the GLib context beneath it.
namespace quillmere {

struct ContextAccess {
  static NSOperationQueue queueOf(GMainContext* context);
  static GMainContext* contextOf(const NSOperationQueue& queue) {
    return static_cast<GMainContext*>(queue.context_.get());
  }
};

/// The calling thread's context, as GLib has it; not a new reference.
GMainContext* currentContext();

}  // namespace quillmere

#endif
