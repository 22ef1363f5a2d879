#ifndef AGENDA_SUBSCRIPTION_H
#define AGENDA_SUBSCRIPTION_H

#include <quillmere/calendars/KBTURLCalendar.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "CalendarHost.h"

namespace agenda {

/// The address that an argument of the command line is, with https for webcal and webcals; null
/// when the argument is a file's name. Throws UsageProblem.
std::optional<quillmere::NSURL> subscriptionURL(const std::string& argument);

/// What the user typed, by user and server, so that nobody is asked twice.
using Passwords = std::map<std::string, std::string>;

/// A calendar behind a URL that reports nothing when the document is no whole calendar.
class SubscribedCalendar : public quillmere::KBTURLCalendar, public DocumentKeeper {
 public:
  static std::shared_ptr<SubscribedCalendar> initWithURL(quillmere::NSURL url);

  /// Whether the last document was none; then the known objects are forgotten, too.
  bool refusedDocument() const { return refusedDocument_; }

 protected:
  using KBTURLCalendar::KBTURLCalendar;

  std::shared_ptr<quillmere::KBTCalObject> _getCalendarData() override;

 private:
  bool refusedDocument_ = false;
};

/// The delegate of one subscription, which can be fetched once and not saved. A fetch that fails
/// leaves everything as it was restored.
class SubscriptionHost : public CalendarHost {
 public:
  static std::shared_ptr<SubscriptionHost> hostForURL(quillmere::NSURL url, Passwords& passwords,
                                                      Progress progress);

 protected:
  SubscriptionHost(std::shared_ptr<SubscribedCalendar> calendar, Passwords& passwords,
                   Progress progress);

 private:
  using Challenge = std::shared_ptr<quillmere::NSURLAuthenticationChallenge>;

  std::string nameOfPlace() const override;
  std::shared_ptr<quillmere::NSURLCredential> credentialFor(
      const quillmere::NSURLAuthenticationChallenge& challenge);

  void synchingCalendar_didReceiveChallenge_completionHandler(
      quillmere::KBTSynchingCalendar&, const Challenge& challenge,
      const quillmere::NSURLSessionChallengeCompletionHandler& completionHandler) override;
  void synchingCalendarCompletedFetchExternalChanges_withError(
      quillmere::KBTSynchingCalendar&, const quillmere::NSErrorPtr& error) override;

  std::shared_ptr<SubscribedCalendar> subscription_;
  Passwords& passwords_;
  std::string whyNoCredential_;
};

}  // namespace agenda

#endif
