#ifndef QUILLMERE_PLATFORM_NET_CURLLOOP_H
#define QUILLMERE_PLATFORM_NET_CURLLOOP_H

#include <curl/curl.h>
#include <glib.h>
#include <quillmere/platform/base/FileDescriptor.h>
#include <quillmere/platform/loop/NSOperationQueue.h>

#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

// Internal: libcurl's transfers on a run loop.
namespace quillmere {

/// All transfers of one run loop: libcurl's multi-socket interface with its sockets in one epoll
/// set, which is one source of the loop. So however many sessions there are, a turn of the loop
/// looks at one descriptor.
///
/// libcurl's own callbacks must not call back into it; so a client only takes notes in them and
/// asks to be told again (`tellSoon`), and everything that reaches a delegate is sent once libcurl
/// has returned.
class CurlLoop : public std::enable_shared_from_this<CurlLoop> {
 public:
  class Client {
   public:
    virtual ~Client() = default;
    /// What was noted since the last time.
    virtual void transferMoved() = 0;
    /// The transfer is over and was taken out of the loop.
    virtual void transferEnded(CURLcode result) = 0;
  };

  /// The loop of a queue; one for each queue and thread that asks, for as long as it is used.
  static std::shared_ptr<CurlLoop> loopOf(const NSOperationQueue& queue);

  CurlLoop(const CurlLoop&) = delete;
  CurlLoop& operator=(const CurlLoop&) = delete;
  ~CurlLoop();

  /// Starts a transfer. The loop keeps the client until the transfer has ended or is removed. Null
  /// for success; otherwise why it cannot be, which may pass: no descriptor is left, say.
  const char* add(CURL* transfer, std::shared_ptr<Client> client);
  /// Takes a transfer out; its client hears nothing more. Nothing when it is not in the loop.
  void remove(CURL* transfer);

  /// Makes `transferMoved` be called on that transfer's client.
  void tellSoon(CURL* transfer);

  /// Servers that let nobody log in a second time over one connection, told by scheme, host and
  /// port: with them a connection is closed after a login, since sessions share their connections.
  void noteSingleLogin(std::string server) { singleLoginServers_.insert(std::move(server)); }
  bool isSingleLogin(const std::string& server) const {
    return singleLoginServers_.contains(server);
  }

  GMainContext* context() const;

 protected:
  explicit CurlLoop(NSOperationQueue queue);

 private:
  struct Source {
    GSource base;
    CurlLoop* loop;
  };

  static gboolean prepare(GSource* source, gint* timeout);
  static gboolean check(GSource* source);
  static gboolean dispatch(GSource* source, GSourceFunc, void*) noexcept;
  static int socketChanged(CURL*, curl_socket_t socket, int what, void* loop, void*);
  static int timerChanged(CURLM*, long milliseconds, void* loop);
  const char* open();
  void work(bool isReadable);
  void tell();

  NSOperationQueue queue_;
  // Null until they are needed, and while the system refuses them.
  std::optional<FileDescriptor> epoll_;
  CURLM* multi_ = nullptr;
  GSource* source_ = nullptr;
  void* tag_ = nullptr;  // of the epoll set in the source
  std::unordered_map<CURL*, std::shared_ptr<Client>> clients_;
  std::deque<CURL*> moved_;
  std::set<std::string> singleLoginServers_;
  gint64 deadline_ = -1;  // when libcurl wants to be called, as an alarm has it
};

}  // namespace quillmere

#endif
