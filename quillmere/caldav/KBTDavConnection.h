#ifndef QUILLMERE_CALDAV_KBTDAVCONNECTION_H
#define QUILLMERE_CALDAV_KBTDAVCONNECTION_H

#include <quillmere/caldav/KBTDavConnectionDelegate.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/caldav/KBTDavRequestor.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/dates/NSDate.h>
#include <quillmere/platform/net/NSURL.h>
#include <quillmere/platform/xml/HWXMLElement.h>

#include <any>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

/// A calendar collection on a CalDAV server (RFC 4791 section 4.2). Every operation returns at once
/// and has exactly one outcome, which the delegate hears later. Operations run one after another,
/// in the order in which they were asked for.
///
/// The address of a resource is its name with ".ics" appended, resolved against the collection's
/// URL, which should end with "/". Nothing in the name is escaped or checked before. Blanks and
/// characters beyond ASCII are escaped on the wire, but "/", "?", "#", "%" and a scheme before ":"
/// mean what they mean in any relative address (RFC 3986): a host escapes them itself, and nothing
/// else, with upper-case digits, and of colons only the first. Names in another form come back from
/// the server as other names. Common servers do not take "/", even escaped.
class QUILLMERE_EXPORT KBTDavConnection : public KBTDavRequestor {
 public:
  /// A collection at `URL`. `name` and `description` may be null; `principal` may not.
  /// `supportedComponents` is the collection's supported-calendar-component-set (RFC 4791 section
  /// 5.2.3); with null both events and to-dos are supported.
  static std::shared_ptr<KBTDavConnection>
  initWithCalendarName_description_URL_forPrincipal_supportedComponents(
      std::optional<std::string> name, std::optional<std::string> description, const NSURL& URL,
      std::shared_ptr<KBTDavPrincipal> principal,
      const std::optional<HWXMLElement>& supportedComponents);
  /// The same without `supportedComponents`.
  static std::shared_ptr<KBTDavConnection> initWithCalendarName_description_URL_forPrincipal(
      std::optional<std::string> name, std::optional<std::string> description, const NSURL& URL,
      std::shared_ptr<KBTDavPrincipal> principal);
  /// There is no collection without a URL.
  static std::shared_ptr<KBTDavRequestor> init() = delete;

  /// Sets the delegate, or takes it away with null. By contract the collection keeps every delegate
  /// alive for good, also when another one is set and when the collection is gone.
  /// `KBTDavPrincipal::invalidate` lets go of them; after that none is taken.
  void setDelegate(std::shared_ptr<KBTDavConnectionDelegate> delegate);

  const std::optional<std::string>& name() const { return name_; }
  /// The description, or the name when there is none.
  const std::optional<std::string>& description() const {
    return description_ ? description_ : name_;
  }
  const NSURL& URL() const { return calendarURL_; }
  bool canContainEvents() const { return canContainEvents_; }
  bool canContainTodos() const { return canContainTodos_; }
  /// Whether "write-content" is granted (RFC 3744 section 3.2), as the principal found it. False at
  /// first.
  bool writable() const { return _writable; }
  void setWritable(bool writable) { _writable = writable; }

  /// Asks for the collection's tag: `didReceiveCTag`.
  void reportCTagWithContext(std::any context);

  /// Asks when the collection has busy time (RFC 4791 section 7.10): `didReceiveFreebusy`. An
  /// answer with a malformed period is a failure, code 3.
  void reportFreebusyFromDate_toDate_context(NSDate from, NSDate to, std::any context);

  /// Lists the entity tags, and with `includingContents` the texts, of the events (else of the
  /// to-dos) that overlap the dates (RFC 4791 section 7.8), or of all when either date is null:
  /// `didReceiveEventsWithETags`.
  void reportEvents_includingContents_fromDate_toDate_context(bool events, bool includingContents,
                                                              std::optional<NSDate> from,
                                                              std::optional<NSDate> to,
                                                              std::any context);

  /// Fetches the resources at these addresses in one request (RFC 4791 section 7.9):
  /// `didReceiveEventsWithETags`.
  void multigetEventsForAddresses_context(const std::vector<std::string>& addresses,
                                          std::any context);

  /// Puts a new resource: `didCreateResource`. Without `allowOverwrite` the request has the field
  /// "If-None-Match:". By contract the name has a colon, so no server heeds it. When the server
  /// tells no entity tag, GETs ask for it until one answer has it or fails.
  void createResource_withName_allowOverwrite_context(const NSData& resource,
                                                      const std::string& name, bool allowOverwrite,
                                                      std::any context);
  /// The same with false for `allowOverwrite`.
  void createResource_withName_context(const NSData& resource, const std::string& name,
                                       std::any context);

  /// Replaces a resource: `didUpdateResource`. With an entity tag the request has the field
  /// "If-Match:". By contract the name has a colon, which makes servers refuse it with 412; pass
  /// null.
  void updateResource_withName_andETag_context(const NSData& resource, const std::string& name,
                                               const std::optional<std::string>& etag,
                                               std::any context);

  /// Deletes a resource: `calDavConnectionDidDeleteResource`. For `etag` see above.
  void deleteResourceWithName_andETag_context(const std::string& name,
                                              const std::optional<std::string>& etag,
                                              std::any context);

  /// Deletes the collection: `calDavConnectionDidRemoveCalendar`.
  void removeCalendar();

  /// Cancels every operation, running or waiting. Each fails later with `NSURLErrorCancelled`,
  /// except `removeCalendar`, which is over as always, and a deletion that has been answered with
  /// 404.
  void cancel() { cancelRequests(); }

 protected:
  KBTDavConnection(std::optional<std::string> name, std::optional<std::string> description,
                   NSURL URL, std::shared_ptr<KBTDavPrincipal> principal,
                   const std::optional<HWXMLElement>& supportedComponents);

  /// Makes the session, and the collection known to the principal. It is the last step of every
  /// `init...`.
  void openSession();

  std::optional<std::string> _getUsername() const override { return principal_->user(); }
  std::optional<std::string> _getPassword() const override { return principal_->password(); }
  void letGo() override;

  /// A row of texts by path for each response of a multi-status (RFC 4918 section 13), in its
  /// order: the text at each of the paths that there is in the prop of its first propstat.
  /// Responses without one are left out.
  static std::vector<KBTDavResourceTexts> _arrayForReportResponse_withKeys(
      const KBTDavRequest& request, const std::vector<std::string>& keys);

  void _didGetCTag(const std::shared_ptr<KBTDavRequest>& request);
  void _didGetFreeBusyForCalendar(const std::shared_ptr<KBTDavRequest>& request);
  void _didGetEventsForCalendar(const std::shared_ptr<KBTDavRequest>& request);
  void _didCreateResource(const std::shared_ptr<KBTDavRequest>& request);
  void _didUpdateResource(const std::shared_ptr<KBTDavRequest>& request);
  void _didDeleteResource(const std::shared_ptr<KBTDavRequest>& request);
  void _didDeleteCalendar(const std::shared_ptr<KBTDavRequest>& request);

 private:
  friend class KBTDavPrincipal;
  using Completion = void (KBTDavConnection::*)(const std::shared_ptr<KBTDavRequest>&);
  using DelegateList = std::vector<std::shared_ptr<KBTDavConnectionDelegate>>;

  NSMutableURLRequest requestWithMethod(const char* method, const std::optional<NSURL>& url) const;
  NSMutableURLRequest reportWithBody(NSData body) const;
  std::optional<NSURL> addressOfResource(const std::string& name) const;
  void issue(NSMutableURLRequest request, Completion completion, std::any context);
  bool tellFailure(const KBTDavRequest& request);
  std::optional<std::string> etagAfterWrite(const KBTDavRequest& request, Completion completion);
  void invalidate();
  static void letGoOf(const std::shared_ptr<void>& keptDelegates);

  KBTDavConnectionDelegate* delegate_ = nullptr;  // one of those that are kept
  std::shared_ptr<KBTDavPrincipal> principal_;
  NSURL calendarURL_;
  std::optional<std::string> name_;
  std::optional<std::string> description_;
  bool canContainEvents_ = true;
  bool canContainTodos_ = true;
  bool _writable = false;
  // Also held by a list of the process once there are any.
  std::shared_ptr<DelegateList> keptDelegates_ = std::make_shared<DelegateList>();
};

}  // namespace quillmere

#endif
