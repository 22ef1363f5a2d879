#ifndef QUILLMERE_CALDAV_KBTDAVCONNECTIONDELEGATE_H
#define QUILLMERE_CALDAV_KBTDAVCONNECTIONDELEGATE_H

#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSError.h>

#include <any>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

class KBTDavConnection;

/// A text for each resource, by its address: the href as the server wrote it, without white space
/// around it.
using KBTDavResourceTexts = std::map<std::string, std::string, std::less<>>;
/// The same with whole resources, in UTF-8. Each keeps the whole answer alive in which it came.
using KBTDavResourceContents = std::map<std::string, NSData, std::less<>>;

/// Hears the outcome of every operation of a calendar collection, exactly once for each, on the
/// loop on which the collection was made. `context` is what the operation was given; a host tells
/// its operations apart by it. A delegate may start operations and cancel in any call. Deriving
/// from `KBTDavConnectionDelegateBase` leaves it only failures to implement.
class QUILLMERE_EXPORT KBTDavConnectionDelegate {
 public:
  virtual ~KBTDavConnectionDelegate() = default;

  /// `reportCTagWithContext` has succeeded. `ctag` changes whenever anything in the collection
  /// changes. Null when the answer has none or is no XML.
  virtual void calDavConnection_didReceiveCTag_context(KBTDavConnection& connection,
                                                       const std::optional<std::string>& ctag,
                                                       const std::any& context) = 0;

  /// An operation has failed; `removeCalendar` never does. The error, never null, is of
  /// `KBTDavConnectionErrorDomain` (its code is the HTTP status, or 3 for a malformed free/busy
  /// answer) or of `NSURLErrorDomain` (`NSURLErrorCancelled` after `cancel`).
  virtual void calDavConnection_requestDidFail_context(KBTDavConnection& connection,
                                                       const NSErrorPtr& error,
                                                       const std::any& context) = 0;

  /// `reportFreebusyFromDate_toDate_context` has succeeded. `periods` may be empty.
  virtual void calDavConnection_didReceiveFreebusy_context(
      KBTDavConnection& connection, const std::vector<std::shared_ptr<KBTFreeBusy>>& periods,
      const std::any& context) = 0;

  /// A listing or a fetch by address has succeeded. The maps have entity tag and iCalendar text of
  /// each resource whose first propstat (RFC 4918 section 14.22) has exactly the status "HTTP/1.1
  /// 200 OK"; either may lack a resource. Both are empty when the answer is no XML.
  virtual void calDavConnection_didReceiveEventsWithETags_andContents_context(
      KBTDavConnection& connection, const KBTDavResourceTexts& etags,
      const KBTDavResourceContents& contents, const std::any& context) = 0;

  /// A resource was created, and this is its entity tag.
  virtual void calDavConnection_didCreateResourceWithETag_context(KBTDavConnection& connection,
                                                                  const std::string& etag,
                                                                  const std::any& context) = 0;

  /// A resource was replaced, and this is its entity tag.
  virtual void calDavConnection_didUpdateResourceWithETag_context(KBTDavConnection& connection,
                                                                  const std::string& etag,
                                                                  const std::any& context) = 0;

  /// A resource was deleted, or there was none (404).
  virtual void calDavConnectionDidDeleteResource_context(KBTDavConnection& connection,
                                                         const std::any& context) = 0;

  /// `removeCalendar` is over. Intended: nobody is told whether it succeeded.
  virtual void calDavConnectionDidRemoveCalendar(KBTDavConnection& connection) = 0;
};

/// A delegate that hears failures, and of what succeeds only what it overrides.
class QUILLMERE_EXPORT KBTDavConnectionDelegateBase : public KBTDavConnectionDelegate {
 public:
  void calDavConnection_didReceiveCTag_context(KBTDavConnection&, const std::optional<std::string>&,
                                               const std::any&) override {}
  void calDavConnection_didReceiveFreebusy_context(KBTDavConnection&,
                                                   const std::vector<std::shared_ptr<KBTFreeBusy>>&,
                                                   const std::any&) override {}
  void calDavConnection_didReceiveEventsWithETags_andContents_context(KBTDavConnection&,
                                                                      const KBTDavResourceTexts&,
                                                                      const KBTDavResourceContents&,
                                                                      const std::any&) override {}
  void calDavConnection_didCreateResourceWithETag_context(KBTDavConnection&, const std::string&,
                                                          const std::any&) override {}
  void calDavConnection_didUpdateResourceWithETag_context(KBTDavConnection&, const std::string&,
                                                          const std::any&) override {}
  void calDavConnectionDidDeleteResource_context(KBTDavConnection&, const std::any&) override {}
  void calDavConnectionDidRemoveCalendar(KBTDavConnection&) override {}
};

}  // namespace quillmere

#endif
