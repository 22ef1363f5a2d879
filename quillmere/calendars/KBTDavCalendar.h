#ifndef QUILLMERE_CALENDARS_KBTDAVCALENDAR_H
#define QUILLMERE_CALENDARS_KBTDAVCALENDAR_H

#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavConnectionDelegate.h>
#include <quillmere/calendars/KBTSynchingCalendar.h>
#include <quillmere/platform/base/AtomicOptional.h>

#include <any>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quillmere {

/// A calendar in a CalDAV collection (RFC 4791), of which it holds the events or the to-dos. The
/// unique name of an object is its resource's name without ".ics", the version string the
/// resource's entity tag, the caching string the collection's tag.
///
/// Every operation returns at once. It makes itself the delegate of the collection, so one
/// collection serves one calendar; and since collections keep their delegates alive, a calendar
/// lives until `KBTDavPrincipal::invalidate`, after which it does nothing more and hears nothing.
///
/// What a host should know (all intended):
///
/// - A failed check stops the process. Hosts that cannot have that use `fetchExternalChanges`,
///   which asks for the tag first as well and is done when that has not changed.
/// - A fetch takes the new tag before it lists. When the listing fails, the next fetch sees no
///   change; to try again, put the caching string back (`setCachingString`) before.
/// - A listing that is no XML, such as a page with status 200, is one of an empty collection: all
///   objects are reported as deleted. A host that cannot have that makes sure before it gives up its
///   own copies.
/// - Objects outside the delegate's dates are not listed, so known ones there are reported as
///   deleted.
/// - A save overwrites and deletes whatever the server has by then.
class KBTDavCalendar : public KBTSynchingCalendar, public KBTDavConnectionDelegate {
 public:
  /// Null without a connection.
  static std::shared_ptr<KBTDavCalendar> initWithDavConnection(
      std::shared_ptr<KBTDavConnection> connection);
  /// Without a collection there is no calendar.
  static std::shared_ptr<KBTSynchingCalendar> init() = delete;
  ~KBTDavCalendar() override;

  const std::shared_ptr<KBTDavConnection>& connection() const { return connection_; }

  /// Whether it holds the to-dos; false at first: it holds the events.
  bool getToDos() const { return getToDos_; }
  void setGetToDos(bool getToDos) { getToDos_ = getToDos; }

  /// The collection's tag at the last fetch or save, null before; any thread may read and set it.
  std::optional<std::string> cTag() const { return cTag_.get(); }
  void setCTag(std::optional<std::string> cTag) { cTag_.set(std::move(cTag)); }

  /// The name of the collection.
  std::optional<std::string> calendarName() const override;
  /// `cTag`.
  std::optional<std::string> cachingString() const override;
  void setCachingString(const std::optional<std::string>& cachingString) override;
  /// Whether the other is the calendar of a collection with the same URL.
  bool isEqualToCalendar(const KBTSynchingCalendar& other) const override;

  /// Compares the collection's tag; without a caching string there are no changes. Nothing happens
  /// while a check or a fetch is in flight. A failure stops the process.
  void checkForExternalChanges() override;

  /// Compares the collection's tag, lists the entity tags if it has changed, and fetches what is
  /// new or has another version, all in one request. Nothing happens while a check or a fetch is in
  /// flight.
  void fetchExternalChanges() override;

  /// Puts or deletes a resource for each pending change, whatever the server has there: insertions
  /// first, then updates, then deletions. In the end it asks for the collection's tag, so that its
  /// own changes are none at the next fetch.
  ///
  /// Failures are reported with the unique name, or, when it is the tag that cannot be had, with
  /// the text "KBTDavCalendar_FinishedSaving"; the save is completed all the same, and what failed
  /// stays pending for the next. An object that was deleted stays known until a fetch reports its
  /// deletion. `didInsert`, `didUpdate` and `didDelete` tell a null object for a name that the
  /// calendar does not know, as when an object was deleted that it never held.
  void saveChanges() override;

  /// Cancels every request; each fails with `NSURLErrorCancelled`, so what is in flight completes,
  /// later. Not to be called during a check.
  void cancel() override;

  // What the collection tells.

  void calDavConnection_didReceiveCTag_context(KBTDavConnection& connection,
                                               const std::optional<std::string>& ctag,
                                               const std::any& context) override;
  void calDavConnection_requestDidFail_context(KBTDavConnection& connection,
                                               const NSErrorPtr& error,
                                               const std::any& context) override;
  /// Nothing of it is for calendars.
  void calDavConnection_didReceiveFreebusy_context(
      KBTDavConnection& connection, const std::vector<std::shared_ptr<KBTFreeBusy>>& periods,
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
  /// Nothing of it is for calendars.
  void calDavConnectionDidRemoveCalendar(KBTDavConnection& connection) override;

 protected:
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
