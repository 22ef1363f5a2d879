#include <quillmere/platform/loop/MainContext.h>
#include <quillmere/platform/loop/NSOperationQueue.h>

#include <utility>

namespace quillmere {

using Block = std::function<void()>;

NSOperationQueue ContextAccess::queueOf(GMainContext* context) {
  return NSOperationQueue(std::shared_ptr<void>(g_main_context_ref(context), [](void* owned) {
    g_main_context_unref(static_cast<GMainContext*>(owned));
  }));
}

GMainContext* currentContext() {
  GMainContext* context = g_main_context_get_thread_default();
  return context ? context : g_main_context_default();
}

NSOperationQueue NSOperationQueue::mainQueue() {
  return ContextAccess::queueOf(g_main_context_default());
}

NSOperationQueue NSOperationQueue::currentQueue() {
  return ContextAccess::queueOf(currentContext());
}

void NSOperationQueue::addOperationWithBlock(Block block) const {
  const auto run = [](void* data) noexcept -> gboolean {
    // Moved out first: what the block owns may end the context that owns the source.
    const Block called = std::move(*static_cast<Block*>(data));
    called();
    return G_SOURCE_REMOVE;
  };
  auto kept = std::make_unique<Block>(std::move(block));
  const auto drop = [](void* data) { std::unique_ptr<Block>(static_cast<Block*>(data)).reset(); };
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, run, kept.release(), drop);
  g_source_attach(source, ContextAccess::contextOf(*this));
  g_source_unref(source);
}

}  // namespace quillmere
