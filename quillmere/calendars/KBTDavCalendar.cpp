#include <quillmere/caldav/ResourceName.h>
#include <quillmere/calendars/KBTDavCalendar.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/base/makeObject.h>

#include <string_view>
#include <utility>

namespace quillmere {
namespace {

// What the calendar's requests are told apart by. A PUT or a DELETE has the object's name instead,
// a `std::string`, so that no name that a server has chosen is taken for one of these.
using Context = std::string_view;
constexpr Context checkCTag = "KBTDavCalendar_CheckCTag";
constexpr Context fetchCTag = "KBTDavCalendar_FetchCTag";
constexpr Context findServerChanges = "KBTDavCalendar_FindServerChanges";
constexpr Context fetchServerUpdates = "KBTDavCalendar_FetchServerUpdates";
constexpr Context finishedSaving = "KBTDavCalendar_FinishedSaving";

// These are empty for a context of another kind.
Context requestIn(const std::any& context) {
  const auto* request = std::any_cast<Context>(&context);
  return request ? *request : Context();
}
std::string nameIn(const std::any& context) {
  const auto* name = std::any_cast<std::string>(&context);
  return name ? *name : std::string();
}

}  // namespace

std::shared_ptr<KBTDavCalendar> KBTDavCalendar::initWithDavConnection(
    std::shared_ptr<KBTDavConnection> connection) {
  if (!connection) return nullptr;
  auto calendar = makeObject<KBTDavCalendar>(std::move(connection));
  calendar->connection_->setDelegate(calendar);
  return calendar;
}

KBTDavCalendar::KBTDavCalendar(std::shared_ptr<KBTDavConnection> connection)
    : connection_(std::move(connection)) {}

KBTDavCalendar::~KBTDavCalendar() {
  connection_->cancel();
  connection_->setDelegate(nullptr);
}

std::optional<std::string> KBTDavCalendar::calendarName() const { return connection_->name(); }

std::optional<std::string> KBTDavCalendar::cachingString() const { return cTag(); }

void KBTDavCalendar::setCachingString(const std::optional<std::string>& cachingString) {
  setCTag(cachingString);
}

bool KBTDavCalendar::isEqualToCalendar(const KBTSynchingCalendar& other) const {
  const auto* calendar = dynamic_cast<const KBTDavCalendar*>(&other);
  return calendar && calendar->connection_->URL() == connection_->URL();
}

void KBTDavCalendar::cancel() { connection_->cancel(); }

// Check and fetch.

void KBTDavCalendar::checkForExternalChanges() {
  if (isChecking()) return;
  if (!cTag()) {
    const auto self = keptAlive();
    return delegate()->synchingCalendarCompletedCheckForExternalChanges_changes(*this, false);
  }
  setIsChecking(true);
  connection_->reportCTagWithContext(checkCTag);
}

void KBTDavCalendar::fetchExternalChanges() {
  if (isChecking()) return;
  setIsChecking(true);
  connection_->reportCTagWithContext(fetchCTag);
}

void KBTDavCalendar::calDavConnection_didReceiveCTag_context(KBTDavConnection&,
                                                             const std::optional<std::string>& ctag,
                                                             const std::any& context) {
  const auto self = keptAlive();
  const Context request = requestIn(context);
  if (request == checkCTag) {
    // Intended: the tag is not kept, or the fetch that follows would see no change.
    setIsChecking(false);
    delegate()->synchingCalendarCompletedCheckForExternalChanges_changes(*this, ctag != cTag());
  } else if (request == fetchCTag) {
    receivedTagOfFetch(ctag);
  } else if (request == finishedSaving) {
    setCTag(ctag);
    completeSave();
  }
}

void KBTDavCalendar::receivedTagOfFetch(const std::optional<std::string>& ctag) {
  if (cTag() && cTag() == ctag) return completeFetch(nullptr);
  setCTag(ctag);  // Intended: before the listing has succeeded.
  const auto earliest = delegate()->synchingCalendarEarliestDate(*this);
  const auto latest = delegate()->synchingCalendarLatestDate(*this);
  connection_->reportEvents_includingContents_fromDate_toDate_context(!getToDos_, false, earliest,
                                                                      latest, findServerChanges);
}

void KBTDavCalendar::completeFetch(const NSErrorPtr& error) {
  setIsChecking(false);
  delegate()->synchingCalendarCompletedFetchExternalChanges_withError(*this, error);
}

void KBTDavCalendar::calDavConnection_didReceiveEventsWithETags_andContents_context(
    KBTDavConnection&, const KBTDavResourceTexts& etags, const KBTDavResourceContents& contents,
    const std::any& context) {
  const auto self = keptAlive();
  const Context request = requestIn(context);
  if (request == findServerChanges) {
    _findServerChangesForEventsWithEtags(etags);
  } else if (request == fetchServerUpdates) {
    _handleServerUpdatesForEventsWithEtags_contents(etags, contents);
  }
}

void KBTDavCalendar::_findServerChangesForEventsWithEtags(const KBTDavResourceTexts& etags) {
  delegate()->synchingCalendarBeganFetchExternalChanges(*this);
  OrderedSet unseen;
  for (std::string& name : objectsByUniqueName().keys()) unseen.insert(std::move(name));
  std::vector<std::string> changed;
  for (const auto& [href, etag] : etags) {
    const std::string name = uniqueNameOfHref(href);
    if (const auto object = objectNamed(name)) {
      const auto version = delegate()->synchingCalendar_versionStringForObject(*this, object);
      if (version != etag) changed.push_back(href);
      unseen.erase(name);
    } else {
      changed.push_back(href);
    }
  }
  for (const std::string& name : unseen.names()) {
    const auto object = objectNamed(name);
    if (!object) continue;  // the host itself took it away during the fetch
    delegate()->synchingCalendar_deletionForObject(*this, object);
    objectsByUniqueName().erase(name);
  }
  if (changed.empty()) return completeFetch(nullptr);
  connection_->multigetEventsForAddresses_context(changed, fetchServerUpdates);
}

void KBTDavCalendar::_handleServerUpdatesForEventsWithEtags_contents(
    const KBTDavResourceTexts& etags, const KBTDavResourceContents& contents) {
  for (const auto& [href, etag] : etags) {
    const auto text = contents.find(href);
    const auto reader = KBTCalObject::initWithData(
        text == contents.end() ? std::nullopt : std::optional(text->second));
    std::string name = uniqueNameOfHref(href);
    if (const auto known = objectNamed(name)) {
      delegate()->synchingCalendar_updateForObject_versionString_data(*this, known, etag, reader);
      continue;
    }
    auto object =
        delegate()->synchingCalendar_newObjectNamed_versionString_data(*this, name, etag, reader);
    if (object) objectsByUniqueName().set(std::move(name), std::move(object));
  }
  completeFetch(nullptr);
}

// Save.

// Null for a name that the calendar does not know.
KBTClientObject KBTDavCalendar::objectNamed(const std::string& name) {
  const KBTClientObject* known = objectsByUniqueName().find(name);
  return known ? *known : nullptr;
}

// Empty where nobody has any.
NSData KBTDavCalendar::dataOfObject(const std::string& name) {
  const auto object = objectNamed(name);
  if (!object) return {};
  const auto source = delegate()->synchingCalendar_icsDataForObject(*this, object);
  return source ? source->icsData() : NSData();
}

// Intended: no request has a condition, so the server's version does not matter.
void KBTDavCalendar::saveChanges() {
  const auto self = keptAlive();
  setIsSaving(true);
  for (const std::string& name : insertSet().names()) {
    connection_->createResource_withName_allowOverwrite_context(dataOfObject(name), name, true,
                                                                name);
  }
  for (const std::string& name : updateSet().names()) {
    connection_->updateResource_withName_andETag_context(dataOfObject(name), name, std::nullopt,
                                                         name);
  }
  for (const std::string& name : deleteSet().names()) {
    connection_->deleteResourceWithName_andETag_context(name, std::nullopt, name);
  }
  _checkForSaveCompletion();
}

void KBTDavCalendar::calDavConnection_didCreateResourceWithETag_context(KBTDavConnection&,
                                                                        const std::string& etag,
                                                                        const std::any& context) {
  const auto self = keptAlive();
  const std::string name = nameIn(context);
  delegate()->synchingCalendar_didInsert_versionString(*this, objectNamed(name), etag);
  insertSet().erase(name);
  _checkForSaveCompletion();
}

void KBTDavCalendar::calDavConnection_didUpdateResourceWithETag_context(KBTDavConnection&,
                                                                        const std::string& etag,
                                                                        const std::any& context) {
  const auto self = keptAlive();
  const std::string name = nameIn(context);
  delegate()->synchingCalendar_didUpdate_versionString(*this, objectNamed(name), etag);
  updateSet().erase(name);
  _checkForSaveCompletion();
}

// The object stays known; the next fetch reports its deletion.
void KBTDavCalendar::calDavConnectionDidDeleteResource_context(KBTDavConnection&,
                                                               const std::any& context) {
  const auto self = keptAlive();
  const std::string name = nameIn(context);
  delegate()->synchingCalendar_didDelete(*this, objectNamed(name));
  deleteSet().erase(name);
  _checkForSaveCompletion();
}

void KBTDavCalendar::calDavConnection_requestDidFail_context(KBTDavConnection&,
                                                             const NSErrorPtr& error,
                                                             const std::any& context) {
  const auto self = keptAlive();
  const Context request = requestIn(context);
  if (request == findServerChanges || request == fetchServerUpdates || request == fetchCTag) {
    completeFetch(error);
  } else if (request == checkCTag) {
    KSFinishPorting({"KBTDavCalendar", 217});  // Intended: a failed check has no other outcome.
  } else if (!isSaving()) {
    KSRecordBacktrace("NOTREACHED");
  } else {
    delegate()->synchingCalendar_failedSavingObject_withError(
        *this, request == finishedSaving ? std::string(request) : nameIn(context), error);
    ++errorCount_;
    _checkForSaveCompletion();
  }
}

// What is pending has failed or is still out; the save is complete when the failures account for
// all of it.
void KBTDavCalendar::_checkForSaveCompletion() {
  const std::size_t pending = updateSet().size() + insertSet().size() + deleteSet().size();
  if (!isSaving() || errorCount_ < pending) return;
  if (errorCount_ > 0) return completeSave();
  connection_->reportCTagWithContext(finishedSaving);
}

void KBTDavCalendar::completeSave() {
  setIsSaving(false);
  errorCount_ = 0;
  delegate()->synchingCalendarCompletedSave(*this);
}

}  // namespace quillmere
