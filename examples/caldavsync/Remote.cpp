#include "Remote.h"

#include <quillmere/platform/loop/NSRunLoop.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <variant>

#include "Folder.h"
#include "common/Program.h"

namespace caldavsync {
namespace {

using quillmere::KBTCalObject;
using quillmere::KBTClientObject;
using quillmere::KBTDavCalendar;
using quillmere::NSData;
using quillmere::NSErrorPtr;
using quillmere::NSRunLoop;

ObjectPtr own(const KBTClientObject& object) { return std::static_pointer_cast<Object>(object); }

}  // namespace

std::shared_ptr<Remote> Remote::open(std::shared_ptr<quillmere::KBTDavConnection> connection,
                                     Kind kind, const Calendar& known) {
  std::shared_ptr<Remote> remote(new Remote(kind));
  remote->calendar_ = KBTDavCalendar::initWithDavConnection(std::move(connection));
  KBTDavCalendar& calendar = *remote->calendar_;
  calendar.setDelegate(remote);
  calendar.setGetToDos(kind == Kind::toDo);
  std::vector<KBTClientObject> objects;
  for (const auto& [name, object] : known.objects) {
    if (object->kind == kind) objects.push_back(object);
  }
  calendar.setObjects(std::move(objects));
  const auto cachingString = known.cachingStrings.find(kind);
  if (cachingString != known.cachingStrings.end()) calendar.setCachingString(cachingString->second);
  return remote;
}

void Remote::waitForEnd() {
  while (!isOver_) NSRunLoop::currentRunLoop().run();
}

void Remote::end() {
  isOver_ = true;
  NSRunLoop::currentRunLoop().stop();
}

void Remote::fetch(Fetched& fetched) {
  isOver_ = false;
  calendar_->fetchExternalChanges();
  waitForEnd();
  if (error_) throw examples::Failure(examples::textOf(*error_));
  std::move(fetched_.arrivals.begin(), fetched_.arrivals.end(),
            std::back_inserter(fetched.arrivals));
  std::move(fetched_.deletions.begin(), fetched_.deletions.end(),
            std::back_inserter(fetched.deletions));
}

void Remote::insert(const Object& object, std::string text) {
  texts_[object.name] = std::move(text);
  calendar_->insertObject(std::make_shared<Object>(object));
}

void Remote::update(const Object& object, std::string text) {
  texts_[object.name] = std::move(text);
  calendar_->updateObject(std::make_shared<Object>(object));
}

void Remote::remove(const Object& object) {
  calendar_->deleteObject(std::make_shared<Object>(object));
}

void Remote::send(Outcome outcome) {
  if (!calendar_->hasPendingChanges()) return;
  outcome_ = std::move(outcome);
  isOver_ = false;
  calendar_->saveChanges();
  waitForEnd();
}

std::optional<std::string> Remote::synchingCalendar_uniqueNameForObject(Dav&,
                                                                        const Client& object) {
  return own(object)->name;
}

std::optional<std::string> Remote::synchingCalendar_versionStringForObject(Dav&,
                                                                           const Client& object) {
  return own(object)->etag;
}

std::shared_ptr<quillmere::KBTICSDataSource> Remote::synchingCalendar_icsDataForObject(
    Dav&, const Client& object) {
  const auto text = texts_.find(own(object)->name);
  if (text == texts_.end()) return nullptr;
  return KBTCalObject::initWithData(NSData::dataWithBytes(text->second));
}

// Declined, since what has arrived is not sent back in the same run.
KBTClientObject Remote::synchingCalendar_newObjectNamed_versionString_data(
    Dav&, const std::string& uniqueName, const std::string& version, const Reader& data) {
  fetched_.arrivals.push_back({kind_, uniqueName, version, withCRLF(data->data().view())});
  return nullptr;
}

void Remote::synchingCalendar_updateForObject_versionString_data(Dav&, const Client& object,
                                                                 const std::string& version,
                                                                 const Reader& data) {
  fetched_.arrivals.push_back({kind_, own(object)->name, version, withCRLF(data->data().view())});
}

void Remote::synchingCalendar_deletionForObject(Dav&, const Client& object) {
  fetched_.deletions.push_back(own(object));
}

void Remote::synchingCalendarCompletedFetchExternalChanges_withError(Dav&,
                                                                     const NSErrorPtr& error) {
  error_ = error;
  end();
}

void Remote::synchingCalendar_didInsert_versionString(Dav&, const Client& object,
                                                      const std::string& version) {
  outcome_(own(object)->name, version, nullptr);
}

void Remote::synchingCalendar_didUpdate_versionString(Dav&, const Client& object,
                                                      const std::string& version) {
  outcome_(own(object)->name, version, nullptr);
}

void Remote::synchingCalendar_didDelete(Dav&, const Client& object) {
  outcome_(own(object)->name, {}, nullptr);
}

// What is no object's name is that of the request for the tag in the end, which nobody uses.
void Remote::synchingCalendar_failedSavingObject_withError(Dav&,
                                                           const quillmere::KBTFailedObject& object,
                                                           const NSErrorPtr& error) {
  if (const auto* name = std::get_if<std::string>(&object)) outcome_(*name, {}, error);
}

}  // namespace caldavsync
