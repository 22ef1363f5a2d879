#ifndef QUILLMERE_PLATFORM_NET_DATATASKRUN_H
#define QUILLMERE_PLATFORM_NET_DATATASKRUN_H

#include <quillmere/platform/net/AuthenticateHeader.h>
#include <quillmere/platform/net/HTTPTransfer.h>
#include <quillmere/platform/net/NSURLSession.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// Internal: a task of a session on its way.
namespace quillmere {

/// Takes a task from its first sending to its completion: one transfer after another, with the
/// delegate's answers to redirects and challenges in between. It keeps its task, and so session and
/// delegate, until it has completed.
class DataTaskRun final : public HTTPTransfer::Owner,
                          public std::enable_shared_from_this<DataTaskRun> {
 public:
  explicit DataTaskRun(std::shared_ptr<NSURLSessionDataTask> task);

  void start();
  /// Tells the delegate, once; nothing after that.
  void complete(const NSErrorPtr& error);

  const std::optional<NSURL>& currentURL() const { return request_.URL(); }

  void transferMoved() override;
  void transferEnded(const NSErrorPtr& error) override;

 private:
  // What the response that comes in is for.
  enum class Purpose : std::uint8_t { unknown, redirect, challenge, deadEnd, answer };

  // What the server that asks for credentials was given.
  struct Login {
    std::int64_t refusedCredentials = 0;
    std::shared_ptr<NSURLCredential> credential;
    AuthenticateChallenge answered;
    long connectionPort = 0;  // of the connection that the answered challenge came over
    int staleNonces = 0;      // since the credential was given
  };

  bool isOver() const { return !task_ || task_->state() != NSURLSessionTaskState::running; }
  void send(const NSURLRequest& request);
  void transfer(const NSURLRequest& request, HTTPTransfer::Connection connection);
  Purpose purposeOf(const NSHTTPURLResponse& response);
  std::optional<NSURL> redirectTarget(const NSHTTPURLResponse& response) const;
  void askAboutRedirect();
  bool asksForNonceAlone(const AuthenticateChallenge& offer) const;
  std::shared_ptr<NSURLCredential> credentialOfURL() const;
  void askForCredential();
  void answer(const AuthenticateChallenge& offer);
  void askAboutResponse();
  void goOn();
  void deliverBody();

  // Wraps what is to be done with the delegate's answer, which may come at once, later, and, from a
  // delegate that errs, twice or after the task has ended.
  template <class... Answer, class Handle>
  auto answerHandler(Handle handle);

  std::shared_ptr<NSURLSessionDataTask> task_;  // null once completed
  NSURLRequest request_;                        // the one under way
  std::shared_ptr<HTTPTransfer> transfer_;
  Purpose purpose_ = Purpose::unknown;
  std::vector<AuthenticateChallenge> challenges_;  // of a response that is one
  bool isAllowed_ = false;                         // the delegate has let the response through
  bool isPaused_ = false;                          // until it does
  bool hasEnded_ = false;                          // the transfer has
  bool isAfresh_ = false;                          // sent again because of a dead end
  int redirects_ = 0;
  Login login_;
  std::uint64_t questions_ = 0;  // asked of the delegate so far, and answered
};

}  // namespace quillmere

#endif
