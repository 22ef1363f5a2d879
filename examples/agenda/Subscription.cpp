#include "Subscription.h"

#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/net/NSURLCredential.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "Problems.h"
#include "common/Password.h"
#include "common/ResourceName.h"

namespace agenda {
namespace {

using quillmere::KBTCalObject;
using quillmere::KBTSynchingCalendar;
using quillmere::NSErrorPtr;
using quillmere::NSURL;
using quillmere::NSURLCredential;
using quillmere::NSURLProtectionSpace;
using std::string_view;

constexpr std::int64_t unauthorized = 401;

// The same server, as safely connected: what a redirect leads to may be anybody's.
bool isServerOf(const NSURL& url, const NSURLProtectionSpace& space) {
  const std::uint16_t defaultPort = url.scheme() == "https" ? 443 : 80;
  return !space.isProxy() && space.protocol() == url.scheme() && space.host() == url.host() &&
         space.port() == url.port().value_or(defaultPort);
}

}  // namespace

std::optional<NSURL> subscriptionURL(const std::string& argument) {
  const std::size_t colon = argument.find(':');
  const auto prefix = NSURL::URLWithString(argument.substr(0, colon + 1));
  auto scheme = prefix ? prefix->scheme() : std::nullopt;
  if (scheme == "webcal" || scheme == "webcals") scheme = "https";
  if (scheme != "http" && scheme != "https") return std::nullopt;

  string_view authority = string_view(argument).substr(colon + 1);
  authority.remove_prefix(std::min(authority.find_first_not_of('/'), authority.size()));
  if (authority.substr(0, authority.find_first_of("/?#")).find('@') != string_view::npos) {
    throw UsageProblem(
        "a URL takes no user and password, which others could read on the command line; set "
        "QUILLMERE_USER");
  }
  const std::string text = *scheme + argument.substr(colon);
  auto url = NSURL::URLWithString(text);
  if (!url || !url->isHTTP()) throw UsageProblem("\"" + text + "\" is no URL that can be asked");
  return url;
}

std::shared_ptr<SubscribedCalendar> SubscribedCalendar::initWithURL(NSURL url) {
  auto calendar = quillmere::makeObject<SubscribedCalendar>(std::move(url));
  calendar->setUrlSession(quillmere::NSURLSession::sessionWithConfiguration_delegate_delegateQueue(
      quillmere::NSURLSessionConfiguration::ephemeralSessionConfiguration(), calendar,
      std::nullopt));
  return calendar;
}

// Without known objects none can be reported as deleted.
std::shared_ptr<KBTCalObject> SubscribedCalendar::_getCalendarData() {
  auto reader = KBTURLCalendar::_getCalendarData();
  document_ = reader->icsData();
  refusedDocument_ = !isWholeCalendar(document_.view());
  if (!refusedDocument_) return reader;
  setObjects({});
  return nullptr;
}

std::shared_ptr<SubscriptionHost> SubscriptionHost::hostForURL(NSURL url, Passwords& passwords,
                                                               Progress progress) {
  auto calendar = SubscribedCalendar::initWithURL(std::move(url));
  auto host = quillmere::makeObject<SubscriptionHost>(calendar, passwords, std::move(progress));
  calendar->setDelegate(host);
  return host;
}

SubscriptionHost::SubscriptionHost(std::shared_ptr<SubscribedCalendar> calendar,
                                   Passwords& passwords, Progress progress)
    : CalendarHost(calendar->url().absoluteString(), calendar, std::move(progress)),
      subscription_(std::move(calendar)),
      passwords_(passwords) {}

std::string SubscriptionHost::nameOfPlace() const {
  const NSURL& url = subscription_->url();
  const std::filesystem::path file = examples::percentDecoded(url.lastPathComponent());
  return file.empty() ? url.host().value_or("") : file.stem().string();
}

// While the user is asked, nothing else is done.
void SubscriptionHost::synchingCalendar_didReceiveChallenge_completionHandler(
    KBTSynchingCalendar&, const Challenge& challenge,
    const quillmere::NSURLSessionChallengeCompletionHandler& completionHandler) {
  completionHandler(quillmere::NSURLSessionAuthChallengeUseCredential, credentialFor(*challenge));
}

std::shared_ptr<NSURLCredential> SubscriptionHost::credentialFor(
    const quillmere::NSURLAuthenticationChallenge& challenge) {
  const NSURLProtectionSpace& space = challenge.protectionSpace();
  const std::string server = space.host() + ":" + std::to_string(space.port());
  const auto user = examples::environment("QUILLMERE_USER");
  if (!isServerOf(subscription_->url(), space)) {
    whyNoCredential_ = server + ", to which it leads, is not told your password";
  } else if (!user) {
    whyNoCredential_ = "QUILLMERE_USER does not tell who you are";
  } else if (challenge.previousFailureCount() > 0) {
    whyNoCredential_ = "the password of " + *user + " is not taken";
  } else {
    try {
      const std::string asked = *user + " at " + server;
      if (!passwords_.contains(asked)) passwords_[asked] = *examples::passwordOf(asked);
      return NSURLCredential::credentialWithUser_password_persistence(
          *user, passwords_[asked], quillmere::NSURLCredentialPersistenceNone);
    } catch (const UsageProblem& problem) {
      whyNoCredential_ = problem.what();
    }
  }
  return nullptr;
}

void SubscriptionHost::synchingCalendarCompletedFetchExternalChanges_withError(
    KBTSynchingCalendar& calendar, const NSErrorPtr& error) {
  if (error) {
    problem_ = examples::textOf(*error);
    const bool isLogin =
        error->domain() == quillmere::KBTURLCalendarErrorDomain && error->code() == unauthorized;
    if (isLogin && !whyNoCredential_.empty()) *problem_ += ": " + whyNoCredential_;
  } else if (subscription_->refusedDocument()) {
    problem_ = "what lies there is no iCalendar document, or not all of one";
  }
  CalendarHost::synchingCalendarCompletedFetchExternalChanges_withError(calendar, nullptr);
}

}  // namespace agenda
