#include <quillmere/platform/loop/Alarm.h>

#include <utility>

namespace quillmere {

struct Alarm::Source {
  GSource base;
  Alarm* alarm;
};

Alarm::Alarm(GMainContext* context, std::function<void()> ring)
    : ring_(std::make_shared<const std::function<void()>>(std::move(ring))) {
  static GSourceFuncs functions{nullptr, nullptr, &Alarm::dispatch, nullptr, nullptr, nullptr};
  source_ = g_source_new(&functions, sizeof(Source));
  reinterpret_cast<Source*>(source_)->alarm = this;
  g_source_attach(source_, context);
}

Alarm::~Alarm() {
  g_source_destroy(source_);
  g_source_unref(source_);
}

gboolean Alarm::dispatch(GSource* source, GSourceFunc, void*) {
  g_source_set_ready_time(source, -1);
  const auto ring = reinterpret_cast<Source*>(source)->alarm->ring_;
  (*ring)();
  return G_SOURCE_CONTINUE;
}

}  // namespace quillmere
