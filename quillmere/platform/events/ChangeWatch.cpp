#include <glib-unix.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <quillmere/platform/events/ChangeWatch.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <utility>

namespace quillmere {
namespace {

constexpr guint firstWait = 5;  // milliseconds; every further one is twice as long
constexpr guint longestWait = 2560;

}  // namespace

struct ChangeWatch::State : std::enable_shared_from_this<State> {
  explicit State(std::function<bool()> asked)
      : file(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), question(std::move(asked)) {}

  void ask() {
    if (question() || nextWait > longestWait) {
      isWaiting = false;
      return;
    }
    isWaiting = true;
    addTimer(std::exchange(nextWait, 2 * nextWait));
  }

  void addTimer(guint milliseconds) {
    const auto ring = [](void* data) noexcept -> gboolean {
      if (const auto state = static_cast<std::weak_ptr<State>*>(data)->lock()) state->ask();
      return G_SOURCE_REMOVE;
    };
    g_timeout_add_full(G_PRIORITY_DEFAULT, milliseconds, ring, handle(), &State::drop);
  }

  // What GLib keeps of this object.
  void* handle() { return std::make_unique<std::weak_ptr<State>>(weak_from_this()).release(); }
  static void drop(void* data) {
    const std::unique_ptr<std::weak_ptr<State>> dropped(static_cast<std::weak_ptr<State>*>(data));
  }

  static gboolean wrote(gint descriptor, GIOCondition, void* data) noexcept {
    const auto state = static_cast<std::weak_ptr<State>*>(data)->lock();
    if (!state) return G_SOURCE_REMOVE;  // and its descriptor may be another file's by now
    char events[4096];
    while (::read(descriptor, events, sizeof events) > 0) continue;
    state->nextWait = firstWait;
    if (!state->isWaiting) state->ask();
    return G_SOURCE_CONTINUE;
  }

  FileDescriptor file;
  std::function<bool()> question;
  guint nextWait = firstWait;
  bool isWaiting = false;  // for a timer to ask again
};

ChangeWatch::ChangeWatch(const std::string& path, std::function<bool()> question)
    : state_(std::make_shared<State>(std::move(question))) {
  const int file = state_->file.get();
  if (file < 0 || ::inotify_add_watch(file, path.c_str(), IN_MODIFY) < 0) return;
  source_ = g_unix_fd_source_new(file, G_IO_IN);
  g_source_set_callback(source_, G_SOURCE_FUNC(&State::wrote), state_->handle(), &State::drop);
  g_source_attach(source_, nullptr);
}

ChangeWatch::~ChangeWatch() {
  if (!source_) return;
  g_source_destroy(source_);
  g_source_unref(source_);
}

}  // namespace quillmere
