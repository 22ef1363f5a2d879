#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/loop/Alarm.h>
#include <quillmere/platform/loop/MainContext.h>
#include <quillmere/platform/net/CurlLoop.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <utility>

namespace quillmere {
namespace {

constexpr int maximumEvents = 64;         // of one turn of the loop
constexpr long maximumConnections = 256;  // of all sessions of a loop; others wait for one

CURLM* newMulti() {
  static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
  return initialised == CURLE_OK ? curl_multi_init() : nullptr;
}

}  // namespace

std::shared_ptr<CurlLoop> CurlLoop::loopOf(const NSOperationQueue& queue) {
  // One list a thread, so that nobody needs a lock.
  thread_local std::map<GMainContext*, std::weak_ptr<CurlLoop>> loops;
  std::erase_if(loops, [](const auto& entry) { return entry.second.expired(); });
  std::weak_ptr<CurlLoop>& known = loops[ContextAccess::contextOf(queue)];
  std::shared_ptr<CurlLoop> loop = known.lock();
  if (!loop) known = loop = makeObject<CurlLoop>(queue);
  return loop;
}

CurlLoop::CurlLoop(NSOperationQueue queue) : queue_(std::move(queue)) {}

CurlLoop::~CurlLoop() {
  while (!clients_.empty()) remove(clients_.begin()->first);
  if (!source_) return;
  curl_multi_cleanup(multi_);
  g_source_destroy(source_);
  g_source_unref(source_);
}

GMainContext* CurlLoop::context() const { return ContextAccess::contextOf(queue_); }

const char* CurlLoop::open() {
  if (source_) return nullptr;
  if (!epoll_) {
    const int descriptor = ::epoll_create1(EPOLL_CLOEXEC);
    if (descriptor < 0) return g_strerror(errno);
    epoll_.emplace(descriptor);
  }
  multi_ = newMulti();
  if (!multi_) return curl_easy_strerror(CURLE_OUT_OF_MEMORY);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlLoop::socketChanged);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlLoop::timerChanged);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, maximumConnections);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, maximumConnections);

  static GSourceFuncs functions{
      &CurlLoop::prepare, &CurlLoop::check, &CurlLoop::dispatch, nullptr, nullptr, nullptr};
  source_ = g_source_new(&functions, sizeof(Source));
  reinterpret_cast<Source*>(source_)->loop = this;
  tag_ = g_source_add_unix_fd(source_, epoll_->get(), G_IO_IN);
  // A delegate may run the loop from within a call.
  g_source_set_can_recurse(source_, TRUE);
  g_source_attach(source_, context());
  return nullptr;
}

const char* CurlLoop::add(CURL* transfer, std::shared_ptr<Client> client) {
  if (const char* const obstacle = open()) return obstacle;
  clients_[transfer] = std::move(client);
  const CURLMcode result = curl_multi_add_handle(multi_, transfer);
  if (result == CURLM_OK) return nullptr;
  clients_.erase(transfer);
  return curl_multi_strerror(result);
}

void CurlLoop::remove(CURL* transfer) {
  const auto found = clients_.find(transfer);
  if (found == clients_.end()) return;
  const std::shared_ptr<Client> kept = std::move(found->second);
  clients_.erase(found);
  std::erase(moved_, transfer);
  curl_multi_remove_handle(multi_, transfer);
}

void CurlLoop::tellSoon(CURL* transfer) {
  if (std::find(moved_.begin(), moved_.end(), transfer) == moved_.end()) moved_.push_back(transfer);
}

// The loop asks for the time instead of being told, since telling GLib wakes the loop each time.

gboolean CurlLoop::prepare(GSource* source, gint* timeout) {
  const CurlLoop& loop = *reinterpret_cast<Source*>(source)->loop;
  *timeout = loop.moved_.empty() ? millisecondsUntil(loop.deadline_) : 0;
  return *timeout == 0;
}

gboolean CurlLoop::check(GSource* source) {
  gint timeout = 0;
  return prepare(source, &timeout);
}

gboolean CurlLoop::dispatch(GSource* source, GSourceFunc, void*) noexcept {
  const auto loop = reinterpret_cast<Source*>(source)->loop->shared_from_this();
  loop->work((g_source_query_unix_fd(source, loop->tag_) & G_IO_IN) != 0);
  return G_SOURCE_CONTINUE;
}

void CurlLoop::work(bool isReadable) {
  int running = 0;
  if (isReadable) {
    std::array<epoll_event, maximumEvents> events;
    const int count = ::epoll_wait(epoll_->get(), events.data(), maximumEvents, 0);
    for (int i = 0; i < count; ++i) {
      const std::uint32_t happened = events[static_cast<std::size_t>(i)].events;
      const int mask = ((happened & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0) |
                       ((happened & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
                       ((happened & (EPOLLERR | EPOLLHUP)) != 0 ? CURL_CSELECT_ERR : 0);
      curl_multi_socket_action(multi_, events[static_cast<std::size_t>(i)].data.fd, mask, &running);
    }
  }
  if (deadline_ != Alarm::never && g_get_monotonic_time() >= deadline_) {
    deadline_ = Alarm::never;
    curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
  }
  tell();
}

// Clients may start and remove transfers, and run the loop, while they are told; so nothing is
// walked, and each is looked up again.
void CurlLoop::tell() {
  while (!moved_.empty()) {
    CURL* const transfer = moved_.front();
    moved_.pop_front();
    const auto found = clients_.find(transfer);
    if (found == clients_.end()) continue;
    const std::shared_ptr<Client> client = found->second;
    client->transferMoved();
  }
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* const transfer = message->easy_handle;
    const CURLcode result = message->data.result;
    const auto found = clients_.find(transfer);
    if (found == clients_.end()) continue;
    const std::shared_ptr<Client> client = found->second;
    remove(transfer);
    client->transferEnded(result);
  }
}

int CurlLoop::socketChanged(CURL*, curl_socket_t socket, int what, void* loop, void*) {
  const int epoll = static_cast<CurlLoop*>(loop)->epoll_->get();
  if (what == CURL_POLL_REMOVE) {
    ::epoll_ctl(epoll, EPOLL_CTL_DEL, socket, nullptr);
    return 0;
  }
  epoll_event event{};
  if ((what & CURL_POLL_IN) != 0) event.events |= EPOLLIN;
  if ((what & CURL_POLL_OUT) != 0) event.events |= EPOLLOUT;
  event.data.fd = socket;
  // What is known of a socket that was closed without notice is gone from the set already.
  if (::epoll_ctl(epoll, EPOLL_CTL_MOD, socket, &event) == 0) return 0;
  // One that the system does not take falls silent, and its request times out; an error here would
  // end every request of the loop, those to come included.
  ::epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event);
  return 0;
}

int CurlLoop::timerChanged(CURLM*, long milliseconds, void* data) {
  auto* const loop = static_cast<CurlLoop*>(data);
  loop->deadline_ =
      milliseconds < 0 ? Alarm::never : g_get_monotonic_time() + gint64{milliseconds} * 1000;
  return 0;
}

}  // namespace quillmere
