#ifndef QUILLMERE_TESTS_SUPPORT_SCOPEDLOOP_H
#define QUILLMERE_TESTS_SUPPORT_SCOPEDLOOP_H

#include <glib.h>

namespace quillmere::testing {

/// Gives the thread a loop of its own for the length of a scope.
class ScopedLoop {
 public:
  ScopedLoop() { g_main_context_push_thread_default(context_); }
  ScopedLoop(const ScopedLoop&) = delete;
  ScopedLoop& operator=(const ScopedLoop&) = delete;
  ~ScopedLoop() {
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }

 private:
  GMainContext* context_ = g_main_context_new();
};

}  // namespace quillmere::testing

#endif
