#include "CalendarHost.h"

#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <utility>

#include "Problems.h"

namespace agenda {
namespace {

using quillmere::KBTCalObject;
using quillmere::KBTClientObject;
using quillmere::NSData;
using quillmere::NSDate;
using quillmere::NSErrorPtr;
using quillmere::NSRunLoop;
using std::string_view;

// Where an object stands when the fetch gave no lines for it.
constexpr std::size_t nowhere = static_cast<std::size_t>(-1);

std::shared_ptr<AgendaObject> own(const KBTClientObject& object) {
  return std::static_pointer_cast<AgendaObject>(object);
}

[[noreturn]] void refuseToSave(const std::string& reason) {
  throw CalendarProblem("cannot be saved without losing data: " + reason);
}

DocumentParts splitForSaving(string_view document) {
  try {
    return splitDocument(document);
  } catch (const CalendarProblem& problem) {
    refuseToSave(problem.what());
  }
}

bool fileHolds(const std::string& path, string_view bytes) {
  std::ifstream file(path, std::ios::binary);
  std::array<char, 1 << 16> piece;
  while (file) {
    file.read(piece.data(), piece.size());
    const string_view read(piece.data(), static_cast<std::size_t>(file.gcount()));
    if (!bytes.starts_with(read)) return false;
    bytes.remove_prefix(read.size());
  }
  return file.eof() && bytes.empty();
}

}  // namespace

std::shared_ptr<AgendaCalendar> AgendaCalendar::initWithPath(std::string path) {
  return quillmere::makeObject<AgendaCalendar>(std::move(path));
}

void AgendaCalendar::setCachingString(const std::optional<std::string>& cachingString) {
  const auto date = _checkDate();
  const bool isSame = date && date->xmlDateString() == cachingString;
  KBTFileCalendar::setCachingString(isSame ? cachingString : std::nullopt);
}

std::shared_ptr<KBTCalObject> AgendaCalendar::_getCalendarData() {
  auto reader = KBTFileCalendar::_getCalendarData();
  document_ = reader->icsData();
  return reader;
}

void AgendaCalendar::_writeCalendarData(const NSData& document) {
  document_ = document;
  KBTFileCalendar::_writeCalendarData(document);
}

std::shared_ptr<CalendarHost> CalendarHost::hostForFile(std::string path, Progress progress) {
  const auto calendar = AgendaCalendar::initWithPath(path);
  auto host = quillmere::makeObject<CalendarHost>(std::move(path), calendar, std::move(progress));
  calendar->setDelegate(host);
  return host;
}

void CalendarHost::restore(const KeptCalendar& kept) {
  std::vector<KBTClientObject> seeds;
  for (const auto& object : kept.objects) {
    objects_[object->name] = object;
    seeds.push_back(object);
  }
  splitEvents_ = kept.splitEvents;
  calendar_->setObjects(seeds);
  calendar_->setCalendarName(kept.calendarName);
  calendar_->setCachingString(kept.cachingString);
  cachingString_ = kept.cachingString;
}

KeptCalendar CalendarHost::kept() const {
  KeptCalendar kept{place_, cachingString_, calendar_->calendarName(), {}, splitEvents_};
  for (const auto& [uid, object] : objects_) kept.objects.push_back(object);
  return kept;
}

std::string CalendarHost::name() const { return calendar_->calendarName().value_or(nameOfPlace()); }

std::string CalendarHost::nameOfPlace() const {
  return std::filesystem::path(place_).stem().string();
}

void CalendarHost::beginFetch() {
  changes_ = {};
  beginReading(Items::changed);
}

Changes CalendarHost::endFetch() {
  endReading();
  keeper_.forgetDocument();
  return std::move(changes_);
}

Changes CalendarHost::fetchForSaving() {
  constexpr int maximumTries = 5;
  changes_ = {};
  int tries = 0;
  do {
    if (tries++ == maximumTries) throw CalendarProblem("another program keeps changing the file");
    beginReading(Items::every);
    endReading();
  } while (changedOutside());
  takeDocumentApart();
  return std::move(changes_);
}

void CalendarHost::beginReading(Items items) {
  wanted_ = items;
  if (items == Items::every) calendar_->setCachingString(std::nullopt);
  items_ = 0;
  changes_.wasRead = false;
  isReading_ = true;
  problem_.reset();
  calendar_->fetchExternalChanges();
}

// After a failure, and where nothing has changed, a URL's calendar may have another caching string,
// or none.
void CalendarHost::endReading() {
  while (isReading_) NSRunLoop::currentRunLoop().run();
  if (problem_) throw CalendarProblem("cannot be read: " + *problem_);
  if (!changes_.wasRead) return;
  cachingString_ = calendar_->cachingString();
  readSplitEvents();
}

// Of several components with one UID the calendar reports only the first, so the host looks for the
// others itself. What cannot be taken apart is shown as it was reported.
void CalendarHost::readSplitEvents() {
  splitEvents_.clear();
  const string_view document = keeper_.document().view();
  if (document.find("RECURRENCE-ID") == string_view::npos) return;
  try {
    const auto components = splitDocument(document).components;
    for (const Component& component : components) {
      const bool isPart = component.name == "VEVENT" && !component.uid.empty();
      if (isPart && isChangedInstance(component.text)) splitEvents_[component.uid];
    }
    for (const Component& component : components) {
      const auto found = splitEvents_.find(component.uid);
      if (found == splitEvents_.end() || component.name != "VEVENT") continue;
      const auto reader = KBTCalObject::initWithData(NSData::dataWithBytes(component.text));
      found->second.push_back(readEntry(*reader));
    }
  } catch (const CalendarProblem&) {
    splitEvents_.clear();
  }
}

// A large file takes a while to read, and others may write it meanwhile.
bool CalendarHost::changedOutside() {
  if (!std::filesystem::exists(place_)) return false;  // it is yet to be made
  calendar_->checkForExternalChanges();
  return changedOutside_;
}

std::string CalendarHost::add(const Fields& fields) {
  const auto object = std::make_shared<AgendaObject>();
  object->name = quillmere::CFUUIDCreateString();
  SavedText& text = texts_[object.get()];
  text.written = newEvent(object->name, fields, NSDate::date());
  text.components = {text.written};

  objects_[object->name] = object;
  calendar_->insertObject(object);
  save();
  return object->name;
}

void CalendarHost::edit(const std::string& uid, const Fields& fields) {
  const auto object = objectNamed(uid);
  SavedText& text = texts_[object.get()];
  auto component =
      std::find_if_not(text.components.begin(), text.components.end(), isChangedInstance);
  if (component == text.components.end()) component = text.components.begin();
  text.written = editedComponent(*component, fields, NSDate::date());
  *component = text.written;

  calendar_->updateObject(object);
  save();
}

void CalendarHost::remove(const std::string& uid) {
  const auto object = objectNamed(uid);
  texts_[object.get()].components.clear();
  calendar_->deleteObject(object);
  objects_.erase(uid);
  save();
}

std::shared_ptr<AgendaObject> CalendarHost::objectNamed(const std::string& uid) const {
  const auto found = objects_.find(uid);
  if (found == objects_.end()) throw CalendarProblem("holds nothing of the UID " + uid);
  return found->second;
}

// Gives every component of the document to the object that will answer for it at the save. What
// belongs to no object stays where it stands: behind the object before it, or in front of all.
void CalendarHost::takeDocumentApart() {
  source_ = keeper_.document();
  texts_.clear();
  const DocumentParts parts = splitForSaving(source_.view());
  const auto owners = ownersOf(parts.components);
  putObjectsInOrder();

  beforeObjects_ = parts.properties;
  SavedText* previous = nullptr;
  for (std::size_t i = 0; i < owners.size(); ++i) {
    const string_view text = parts.components[i].text;
    if (owners[i]) {
      previous = &texts_[owners[i]];
      previous->components.push_back(text);
    } else if (previous) {
      previous->followers.push_back(text);
    } else {
      beforeObjects_ += text;
    }
  }
}

// A component's owner is the object it was reported as, else (a changed instance) the one that
// answers for the first of the same kind and UID, else nobody.
std::vector<AgendaObject*> CalendarHost::ownersOf(const std::vector<Component>& components) const {
  const auto byPlace = objectsByPlace();
  std::map<std::pair<string_view, string_view>, AgendaObject*> byUID;
  std::vector<AgendaObject*> owners(components.size());
  std::size_t found = 0;
  for (std::size_t i = 0; i < components.size(); ++i) {
    const Component& component = components[i];
    const auto place = static_cast<std::size_t>(component.text.data() - source_.bytes());
    const auto object = byPlace.find(place);
    if (object == byPlace.end()) continue;
    ++found;
    owners[i] = object->second;
    if (!component.uid.empty()) byUID.try_emplace({component.name, component.uid}, owners[i]);
  }
  if (found != byPlace.size()) refuseToSave("an event or to-do is not where it should be");

  for (std::size_t i = 0; i < components.size(); ++i) {
    const auto object = byUID.find({components[i].name, components[i].uid});
    if (!owners[i] && object != byUID.end()) owners[i] = object->second;
  }
  return owners;
}

std::map<std::size_t, AgendaObject*> CalendarHost::objectsByPlace() const {
  std::map<std::size_t, AgendaObject*> result;
  for (const auto& [uid, object] : objects_) {
    const bool isFirst = result.emplace(object->place, object.get()).second;
    if (!isFirst) refuseToSave("one event or to-do was read as several");
  }
  return result;
}

// A save writes the objects in the order in which the calendar got them.
void CalendarHost::putObjectsInOrder() {
  std::vector<KBTClientObject> inOrder;
  for (const auto& [uid, object] : objects_) inOrder.push_back(object);
  std::sort(inOrder.begin(), inOrder.end(),
            [](const auto& a, const auto& b) { return own(a)->place < own(b)->place; });
  calendar_->setObjects(inOrder);
}

// The calendar would write its name unescaped, so the line that the file has is carried instead.
void CalendarHost::save() {
  const auto calendarName = calendar_->calendarName();
  calendar_->setCalendarName(std::nullopt);
  problem_.reset();
  calendar_->saveChanges();
  calendar_->setCalendarName(calendarName);
  if (problem_) throw CalendarProblem("could not be saved: " + *problem_);
  checkFileHolds(keeper_.document());

  // The saved file tells the versions and entries from now on.
  texts_.clear();
  source_ = {};
  beginReading(Items::every);
  endReading();
  keeper_.forgetDocument();
}

// By contract a write that fails is reported as a completed save.
void CalendarHost::checkFileHolds(const NSData& document) const {
  if (fileHolds(place_, document.view())) return;
  throw CalendarProblem("could not be saved: the file does not hold what was written to it");
}

void CalendarHost::readItem(AgendaObject& object, const std::string& version, KBTCalObject& item) {
  object.version = version;
  object.place = nowhere;
  if (item.nextLine() && item.key()) {
    // Keys point into the document, and the first one is the item's "BEGIN".
    object.place = static_cast<std::size_t>(item.key()->data() - keeper_.document().bytes());
  }
  item.reset();
  object.entry = readEntry(item);
}

void CalendarHost::countItem() {
  if (progress_) progress_(++items_);
}

std::optional<std::string> CalendarHost::synchingCalendar_uniqueNameForObject(
    Calendar&, const Object& object) {
  return own(object)->name;
}

// Null differs from every version, so then each item comes with its reader.
std::optional<std::string> CalendarHost::synchingCalendar_versionStringForObject(
    Calendar&, const Object& object) {
  countItem();
  if (wanted_ == Items::every) return std::nullopt;
  return own(object)->version;
}

std::shared_ptr<quillmere::KBTICSDataSource> CalendarHost::synchingCalendar_icsDataForObject(
    Calendar&, const Object& object) {
  std::string text = std::exchange(beforeObjects_, "");
  const SavedText& saved = texts_[own(object).get()];
  for (const string_view component : saved.components) text += component;
  for (const string_view component : saved.followers) text += component;
  return KBTCalObject::initWithData(NSData::dataWithString(std::move(text)));
}

void CalendarHost::synchingCalendarBeganFetchExternalChanges(Calendar&) { changes_.wasRead = true; }

KBTClientObject CalendarHost::synchingCalendar_newObjectNamed_versionString_data(
    Calendar&, const std::string& uniqueName, const std::string& version, const Reader& item) {
  countItem();
  const auto object = std::make_shared<AgendaObject>();
  object->name = uniqueName;
  readItem(*object, version, *item);
  changes_.added.push_back(titleOf(object->entry));
  objects_[uniqueName] = object;
  return object;
}

void CalendarHost::synchingCalendar_updateForObject_versionString_data(Calendar&,
                                                                       const Object& object,
                                                                       const std::string& version,
                                                                       const Reader& item) {
  const auto known = own(object);
  const bool isOtherVersion = known->version != version;
  readItem(*known, version, *item);
  if (isOtherVersion) changes_.updated.push_back(titleOf(known->entry));
}

void CalendarHost::synchingCalendar_deletionForObject(Calendar&, const Object& object) {
  const auto known = own(object);
  changes_.gone.push_back(titleOf(known->entry));
  objects_.erase(known->name);
}

void CalendarHost::synchingCalendarCompletedFetchExternalChanges_withError(
    Calendar&, const NSErrorPtr& error) {
  if (progress_) progress_(std::nullopt);
  if (error) problem_ = examples::textOf(*error);
  isReading_ = false;
  NSRunLoop::currentRunLoop().stop();
}

void CalendarHost::synchingCalendarCompletedCheckForExternalChanges_changes(Calendar&,
                                                                            bool changes) {
  changedOutside_ = changes;
}

void CalendarHost::synchingCalendar_failedSavingObject_withError(Calendar&,
                                                                 const quillmere::KBTFailedObject&,
                                                                 const NSErrorPtr& error) {
  problem_ = examples::textOf(*error);
}

}  // namespace agenda
