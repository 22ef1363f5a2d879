#ifndef QUILLMERE_CALDAV_KBTDAVCONNECTION_H
#define QUILLMERE_CALDAV_KBTDAVCONNECTION_H

#include <quillmere/caldav/KBTDavConnectionDelegate.h>
#include <quillmere/caldav/KBTDavPrincipal.h>
#include <quillmere/caldav/KBTDavRequestor.h>
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
/// and has exactly one outcome, which the delegate hears later; operations run one after another in
/// the order in which they were asked for.
///
/// A resource's name becomes its address by appending ".ics" and resolving against the collection's
/// URL, which should end with "/". Nothing in the name is escaped or checked before: blanks and
/// characters beyond ASCII are escaped on the wire, but "/", "?", "#", "%" and a scheme before ":"
/// mean what they mean in any relative address, so a host that has such names escapes them itself.
class KBTDavConnection : public KBTDavRequestor {
 public:
  /// `supportedComponents` is the collection's supported-calendar-component-set (RFC 4791 section
  /// 5.2.3); with null both events and to-dos are supported. `description` may be null.
  static std::shared_ptr<KBTDavConnection>
  initWithCalendarName_description_URL_forPrincipal_supportedComponents(
      std::optional<std::string> name, std::optional<std::string> description, const NSURL& URL,
      std::shared_ptr<KBTDavPrincipal> principal,
      const std::optional<HWXMLElement>& supportedComponents);
  /// The same with null.
  static std::shared_ptr<KBTDavConnection> initWithCalendarName_description_URL_forPrincipal(
      std::optional<std::string> name, std::optional<std::string> description, const NSURL& URL,
      std::shared_ptr<KBTDavPrincipal> principal);
  /// Without a URL there is no collection.
  static std::shared_ptr<KBTDavRequestor> init() = delete;

  /// Keeps the delegate alive for good, also when another is set and when the collection is gone,
  /// by contract; `KBTDavPrincipal::invalidate` is what lets go of it, and after that none is
  /// taken.
  void setDelegate(std::shared_ptr<KBTDavConnectionDelegate> delegate);

  const std::optional<std::string>& name() const { return name_; }
  /// The name when the collection has no description.
  const std::optional<std::string>& description() const {
    return description_ ? description_ : name_;
  }
  const NSURL& URL() const { return calendarURL_; }
  bool canContainEvents() const { return canContainEvents_; }
  bool canContainTodos() const { return canContainTodos_; }
  /// As the principal found it; false at first.
  bool writable() const { return _writable; }
  void setWritable(bool writable) { _writable = writable; }

  /// Asks for the collection's tag: `didReceiveCTag`.
  void reportCTagWithContext(std::any context);

  /// Asks when the collection has busy time (RFC 4791 section 7.10): `didReceiveFreebusy`. An
  /// answer with a malformed period is a failure.
  void reportFreebusyFromDate_toDate_context(NSDate from, NSDate to, std::any context);

  /// Lists entity tags, and contents where asked for, of the events, or else to-dos, that overlap
  /// the dates (RFC 4791 section 7.8); of all when either is null: `didReceiveEventsWithETags`.
  void reportEvents_includingContents_fromDate_toDate_context(bool events, bool includingContents,
                                                              std::optional<NSDate> from,
                                                              std::optional<NSDate> to,
                                                              std::any context);

  /// Fetches the resources at these addresses (RFC 4791 section 7.9), all in one request:
  /// `didReceiveEventsWithETags`.
  void multigetEventsForAddresses_context(const std::vector<std::string>& addresses,
                                          std::any context);

  /// Puts a new resource: `didCreateResource`. Without `allowOverwrite` the request has the field
  /// "If-None-Match:"; because of its colon no server heeds it, by contract. When the server gives
  /// no entity tag, it is asked for by GETs until there is one or one fails.
  void createResource_withName_allowOverwrite_context(const NSData& resource,
                                                      const std::string& name, bool allowOverwrite,
                                                      std::any context);
  /// The same without overwriting.
  void createResource_withName_context(const NSData& resource, const std::string& name,
                                       std::any context);

  /// Puts a resource in another's place: `didUpdateResource`. With an entity tag the request has
  /// the field "If-Match:", whose colon makes servers refuse it with 412, by contract.
  void updateResource_withName_andETag_context(const NSData& resource, const std::string& name,
                                               const std::optional<std::string>& etag,
                                               std::any context);

  /// Deletes a resource: `calDavConnectionDidDeleteResource`. For the tag see above.
  void deleteResourceWithName_andETag_context(const std::string& name,
                                              const std::optional<std::string>& etag,
                                              std::any context);

  /// Deletes the collection: `calDavConnectionDidRemoveCalendar`.
  void removeCalendar();

  /// Cancels every operation, running or waiting; each fails with `NSURLErrorCancelled`, later, but
  /// `removeCalendar`, which is over as always, and a deletion that was answered 404 already.
  void cancel() { cancelRequests(); }

 protected:
  KBTDavConnection(std::optional<std::string> name, std::optional<std::string> description,
                   NSURL URL, std::shared_ptr<KBTDavPrincipal> principal,
                   const std::optional<HWXMLElement>& supportedComponents);

  std::optional<std::string> _getUsername() const override { return principal_->user(); }
  std::optional<std::string> _getPassword() const override { return principal_->password(); }
  void letGo() override;

  /// A row of texts by path for each response of a multi-status (RFC 4918 section 13), in its
  /// order: of its first propstat's prop, the text at each path that has one. Responses without are
  /// left out.
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
