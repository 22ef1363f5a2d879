#ifndef QUILLMERE_PLATFORM_NET_HTTPTRANSFER_H
#define QUILLMERE_PLATFORM_NET_HTTPTRANSFER_H

#include <quillmere/platform/loop/Alarm.h>
#include <quillmere/platform/net/ContentDecoder.h>
#include <quillmere/platform/net/CurlLoop.h>
#include <quillmere/platform/net/NSHTTPURLResponse.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Internal: one request and its response.
namespace quillmere {

/// Cookies of a session, shared by its transfers.
class CookieJar {
 public:
  CookieJar();
  CookieJar(const CookieJar&) = delete;
  CookieJar& operator=(const CookieJar&) = delete;
  ~CookieJar();

  CURLSH* share() const { return share_; }

 private:
  CURLSH* share_;
};

/// Sends a request over a loop and takes its response in: no redirect is followed, and no challenge
/// answered.
class HTTPTransfer final : public CurlLoop::Client,
                           public std::enable_shared_from_this<HTTPTransfer> {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    /// The response's head is complete, or there is more of its body.
    virtual void transferMoved() = 0;
    /// It is over; null when the response came whole.
    virtual void transferEnded(const NSErrorPtr& error) = 0;
  };

  /// A kept connection may turn out to have been closed, and libcurl then sends the request once
  /// more on a new one: so a method that must not be repeated takes a new one at once, unless told.
  enum class Connection : std::uint8_t { asTheMethodNeeds, kept, keptThenClosed, fresh };

  /// The owner must outlive the transfer, or `stop` it.
  HTTPTransfer(std::shared_ptr<CurlLoop> loop, NSURLRequest request,
               const NSURLSessionConfiguration& configuration, std::shared_ptr<CookieJar> cookies,
               Connection connection, Owner& owner);
  ~HTTPTransfer() override;

  /// What a URL or request that cannot be sent gives; null for one that can.
  static NSErrorPtr errorBeforeSending(const NSURLRequest& request);

  /// Null when the request is on its way; otherwise why it cannot be, and the owner hears nothing.
  NSErrorPtr start();
  /// The owner hears nothing more.
  void stop();
  /// Takes no more of the response in until it is told to go on.
  void pause();
  void goOn();

  /// Null before the head is complete.
  const std::shared_ptr<const NSHTTPURLResponse>& response() const { return response_; }
  /// Which connection the response came over: our port of it.
  long connectionPort() const { return connectionPort_; }
  /// The length of what came of the body, as it came: before it is decoded.
  std::uint64_t bytesReceived() const { return bytesReceived_; }
  /// What came of the body since the last time.
  std::string takeBody() { return std::exchange(body_, {}); }

  void transferMoved() override { owner_->transferMoved(); }
  void transferEnded(CURLcode result) override;

 private:
  static std::size_t receiveHead(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t receiveBody(char* bytes, std::size_t size, std::size_t count, void* self);
  static int watchProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent);

  void setOptions(Connection connection);
  template <class Value>
  void set(CURLoption option, Value value);
  void setHeaderFields();
  void beginAnew();
  bool takeHeadLine(std::string_view line);
  void completeHead();
  bool takeBodyBytes(std::string_view bytes);
  std::optional<NSURLErrorCode> decodeBody(std::string_view bytes);
  void watchForSilence();
  gint64 timeOfSilence() const;
  void lookForSilence();
  NSErrorPtr errorFor(CURLcode result) const;

  std::shared_ptr<CurlLoop> loop_;
  NSURLRequest request_;
  NSURLSessionConfiguration configuration_;
  std::shared_ptr<CookieJar> cookies_;
  Owner* owner_;
  CURL* curl_;
  curl_slist* fields_ = nullptr;
  bool isWhole_ = true;  // as the request says, nothing left out

  std::vector<std::pair<std::string, std::string>> headFields_;
  std::uint64_t headSize_ = 0;
  bool hasStatusLine_ = false;
  bool isHeadComplete_ = false;
  std::shared_ptr<const NSHTTPURLResponse> response_;
  long connectionPort_ = 0;
  std::unique_ptr<ContentDecoder> decoder_;  // null for a body that is not coded
  bool isCodingKnown_ = true;
  bool losesBody_ = false;  // which cannot be decoded, and whose status counts all the same
  std::uint64_t bytesReceived_ = 0;
  std::uint64_t bodySize_ = 0;  // once decoded
  std::string body_;
  NSURLErrorCode failure_ = NSURLErrorCode{0};  // why a callback ended the transfer

  gint64 lastByteTime_ = 0;  // monotonic
  bool hasConnection_ = false;
  curl_off_t bytesSent_ = 0;
  Alarm silence_;
};

}  // namespace quillmere

#endif
