#ifndef QUILLMERE_CALENDARS_KBTDAVCALENDAR_H
#define QUILLMERE_CALENDARS_KBTDAVCALENDAR_H

#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavConnectionDelegate.h>
#include <quillmere/calendars/KBTSynchingCalendar.h>
#include <quillmere/platform/base/AtomicOptional.h>
#include <quillmere/platform/base/Export.h>

#include <any>
#include <concepts>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quillmere {

/// A calendar over a CalDAV collection (RFC 4791), of which it holds the events or the to-dos. An
/// object's unique name is its resource's name without ".ics", its version string the resource's
/// entity tag; the caching string is the collection's tag.
///
/// Every operation returns at once; its result comes on the collection's loop. The calendar makes
/// itself the delegate of the collection, so one collection serves one calendar. Collections keep
/// their delegates alive, so a calendar lives until `KBTDavPrincipal::invalidate`; after that it
/// does nothing more and hears nothing.
///
/// Intended: a failed check stops the process; a fetch takes the new tag before it lists; a listing
/// that is no XML is one of an empty collection; a save has no conditions. docs/behaviours.md tells
/// what this means for a host, and lists the rest.
class QUILLMERE_EXPORT KBTDavCalendar : public KBTSynchingCalendar,
                                        public KBTDavConnectionDelegateBase {
 public:
  /// A calendar over the connection. Null for null.
  static std::shared_ptr<KBTDavCalendar> initWithDavConnection(
      std::shared_ptr<KBTDavConnection> connection);
  /// There is no calendar without a collection.
  static std::shared_ptr<KBTSynchingCalendar> init() = delete;
  ~KBTDavCalendar() override;

  const std::shared_ptr<KBTDavConnection>& connection() const { return connection_; }

  /// Whether the calendar holds the to-dos of its collection. False at first: it holds the events.
  /// Set it before the first fetch.
  bool getToDos() const { return getToDos_; }
  void setGetToDos(bool getToDos) { getToDos_ = getToDos; }

  /// The collection's tag at the last fetch or save. Null before. Any thread may read and set it.
  std::optional<std::string> cTag() const { return cTag_.get(); }
  void setCTag(std::optional<std::string> cTag) { cTag_.set(std::move(cTag)); }
  void setCTag(std::same_as<std::nullptr_t> auto) = delete;

  /// The name of the collection.
  std::optional<std::string> calendarName() const override;
  /// The same as `cTag`.
  std::optional<std::string> cachingString() const override;
  void setCachingString(const std::optional<std::string>& cachingString) override;
  void setCachingString(std::same_as<std::nullptr_t> auto) = delete;
  /// Whether the other is a calendar over a collection with the same URL.
  bool isEqualToCalendar(const KBTSynchingCalendar& other) const override;

  /// Asks for the collection's tag and compares it. Without a caching string it reports no changes.
  /// Does nothing, without a callback, while a check or a fetch is in flight. Stops the process
  /// when the request fails or is cancelled; `fetchExternalChanges` does not.
  void checkForExternalChanges() override;

  /// Asks for the collection's tag. If it has changed, lists the entity tags between the delegate's
  /// dates (RFC 4791 section 7.8), reports known objects that are not listed as deleted, and
  /// fetches what is new or has another version in one request (section 7.9). Does nothing, without
  /// a callback, while a check or a fetch is in flight.
  ///
  /// Completes with an error of `KBTDavConnectionErrorDomain` (the HTTP status) or
  /// `NSURLErrorDomain`. Put the caching string back then: the new tag is already taken.
  void fetchExternalChanges() override;

  /// Puts or deletes a resource for each pending change, whatever the server has there: insertions
  /// first, then updates, then deletions. At the end it asks for the collection's tag, so that the
  /// next fetch does not list its own changes. That tag also covers what others have written since
  /// the last fetch; a host that wants to see it puts the caching string from before back.
  ///
  /// A failure is reported with the unique name, or, when the tag cannot be had, with the text
  /// "KBTDavCalendar_FinishedSaving". The save is completed all the same, and what failed stays
  /// pending. A deleted object stays known until a fetch reports its deletion. `didInsert`,
  /// `didUpdate` and `didDelete` have a null object for a name that the calendar does not know.
  void saveChanges() override;

  /// Cancels every request. Each fails with `NSURLErrorCancelled`, so what is in flight completes,
  /// later. Not to be called during a check, whose failure stops the process.
  void cancel() override;

  // What the collection tells. Not for hosts.

  void calDavConnection_didReceiveCTag_context(KBTDavConnection& connection,
                                               const std::optional<std::string>& ctag,
                                               const std::any& context) override;
  void calDavConnection_requestDidFail_context(KBTDavConnection& connection,
                                               const NSErrorPtr& error,
                                               const std::any& context) override;
  void calDavConnection_didReceiveEventsWithETags_andContents_context(
      KBTDavConnection& connection, const KBTDavResourceTexts& etags,
      const KBTDavResourceContents& contents, const std::any& context) override;
  void calDavConnection_didCreateResourceWithETag_context(KBTDavConnection& connection,
                                                          const std::string& etag,
                                                          const std::any& context) override;
  void calDavConnection_didUpdateResourceWithETag_context(KBTDavConnection& connection,
                                                          const std::string& etag,
                                                          const std::any& context) override;
  void calDavConnectionDidDeleteResource_context(KBTDavConnection& connection,
                                                 const std::any& context) override;

 protected:
  /// The connection is not null. Its delegate is set when the calendar is made: the maker of a
  /// subclass calls `connection()->setDelegate` with it.
  explicit KBTDavCalendar(std::shared_ptr<KBTDavConnection> connection);

 private:
  void receivedTagOfFetch(const std::optional<std::string>& ctag);
  void completeFetch(const NSErrorPtr& error);
  void _findServerChangesForEventsWithEtags(const KBTDavResourceTexts& etags);
  void _handleServerUpdatesForEventsWithEtags_contents(const KBTDavResourceTexts& etags,
                                                       const KBTDavResourceContents& contents);
  NSData dataOfObject(const std::string& name);
  void _checkForSaveCompletion();
  void completeSave();
  KBTClientObject objectNamed(const std::string& name);

  std::shared_ptr<KBTDavConnection> connection_;
  AtomicOptional<std::string> cTag_;
  std::size_t errorCount_ = 0;
  bool getToDos_ = false;
};

}  // namespace quillmere

#endif
