#ifndef QUILLMERE_TESTS_SUPPORT_RECORDINGDELEGATE_H
#define QUILLMERE_TESTS_SUPPORT_RECORDINGDELEGATE_H

#include <quillmere/calendars/KBTSynchingCalendar.h>
#include <quillmere/calendars/KBTSynchingCalendarDelegate.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace quillmere::testing {

/// A host's object in tests.
struct Item {
  std::string name;
  std::string version;
  std::string ics;  // what the host answers for it on a save

  static std::shared_ptr<Item> make(std::string name, std::string version = "",
                                    std::string ics = "") {
    return std::make_shared<Item>(Item{std::move(name), std::move(version), std::move(ics)});
  }
  static Item& of(const KBTClientObject& object) { return *static_cast<Item*>(object.get()); }
};

/// A source of fixed bytes.
struct FixedData : KBTICSDataSource {
  explicit FixedData(std::string bytes) : bytes(std::move(bytes)) {}
  NSData icsData() override { return NSData::dataWithBytes(bytes); }
  std::string bytes;
};

/// Writes every callback down as one line of text, e.g. "new a 20240101T000000Z". Questions about
/// an object (name, version, data) are answered from the item and not written down, but
/// `onCallback` hears of them too: "name of a", "version of a", "data of a".
class RecordingDelegate : public KBTSynchingCalendarDelegateBase {
 public:
  std::vector<std::string> log;
  std::set<std::string> declined;                        // names answered with null
  std::map<std::string, std::shared_ptr<Item>> objects;  // as reported, by name
  std::vector<std::string> readers;  // icsData() of every reader handed over, in order
  NSErrorPtr error;                  // of the last fetch
  std::function<void(const std::string& line)> onCallback = [](const std::string&) {};

  /// The lines since the last call.
  std::vector<std::string> take() { return std::exchange(log, {}); }

  std::optional<std::string> synchingCalendar_uniqueNameForObject(
      KBTSynchingCalendar&, const KBTClientObject& object) override {
    onCallback("name of " + Item::of(object).name);
    return Item::of(object).name;
  }
  void synchingCalendar_setUniqueName_forObject(KBTSynchingCalendar&, const std::string& name,
                                                const KBTClientObject& object) override {
    record("named " + Item::of(object).name + " " + name);
  }
  std::optional<std::string> synchingCalendar_versionStringForObject(
      KBTSynchingCalendar&, const KBTClientObject& object) override {
    onCallback("version of " + Item::of(object).name);
    return Item::of(object).version;
  }
  std::shared_ptr<KBTICSDataSource> synchingCalendar_icsDataForObject(
      KBTSynchingCalendar&, const KBTClientObject& object) override {
    onCallback("data of " + Item::of(object).name);
    if (Item::of(object).ics.empty()) return nullptr;
    return std::make_shared<FixedData>(Item::of(object).ics);
  }
  void synchingCalendarBeganFetchExternalChanges(KBTSynchingCalendar&) override { record("began"); }
  KBTClientObject synchingCalendar_newObjectNamed_versionString_data(
      KBTSynchingCalendar&, const std::string& name, const std::string& version,
      const std::shared_ptr<KBTCalObject>& data) override {
    readers.emplace_back(data->icsData().view());
    record("new " + name + " " + version);
    if (declined.contains(name)) return nullptr;
    return objects[name] = Item::make(name, version);
  }
  void synchingCalendar_updateForObject_versionString_data(
      KBTSynchingCalendar&, const KBTClientObject& object, const std::string& version,
      const std::shared_ptr<KBTCalObject>& data) override {
    readers.emplace_back(data->icsData().view());
    record("update " + Item::of(object).name + " " + version);
    Item::of(object).version = version;
  }
  void synchingCalendar_deletionForObject(KBTSynchingCalendar&,
                                          const KBTClientObject& object) override {
    record("gone " + Item::of(object).name);
  }
  void synchingCalendarCompletedFetchExternalChanges_withError(KBTSynchingCalendar&,
                                                               const NSErrorPtr& failure) override {
    error = failure;
    record("fetched" + textOf(error));
  }
  void synchingCalendarCompletedCheckForExternalChanges_changes(KBTSynchingCalendar&,
                                                                bool changes) override {
    record(changes ? "checked changes" : "checked none");
  }
  void synchingCalendar_didInsert_versionString(KBTSynchingCalendar&, const KBTClientObject& object,
                                                const std::string& version) override {
    saved("inserted ", object, version);
  }
  void synchingCalendar_didUpdate_versionString(KBTSynchingCalendar&, const KBTClientObject& object,
                                                const std::string& version) override {
    saved("updated ", object, version);
  }
  void synchingCalendar_didDelete(KBTSynchingCalendar&, const KBTClientObject& object) override {
    record("deleted " + nameOf(object));
  }
  void synchingCalendar_failedSavingObject_withError(KBTSynchingCalendar&,
                                                     const KBTFailedObject& object,
                                                     const NSErrorPtr& error) override {
    const auto* failed = std::get_if<KBTClientObject>(&object);
    const std::string name = !failed   ? std::get<std::string>(object)
                             : *failed ? nameOf(*failed)
                                       : "document";
    record("failed " + name + textOf(error));
  }
  void synchingCalendarCompletedSave(KBTSynchingCalendar&) override { record("saved"); }

 private:
  static std::string nameOf(const KBTClientObject& object) {
    return object ? Item::of(object).name : "(null)";
  }
  void saved(const char* how, const KBTClientObject& object, const std::string& version) {
    if (object) Item::of(object).version = version;
    record(how + nameOf(object) + " " + version);
  }
  static std::string textOf(const NSErrorPtr& error) {
    return error ? " " + error->domain() + " " + std::to_string(error->code()) : "";
  }
  void record(const std::string& line) {
    log.push_back(line);
    onCallback(line);
  }
};

/// Whether a calendar lives on, until its operation returns, after its host has let go of `last`,
/// the last reference, in the callback. The operation is one that reports at once.
template <class Calendar>
bool outlivesItsLastReference(RecordingDelegate& host, std::shared_ptr<Calendar> last,
                              void (Calendar::*operation)()) {
  const std::weak_ptr<Calendar> weak = last;
  Calendar& calendar = *last;
  bool isAlive = false;
  host.onCallback = [&](const std::string&) {
    last.reset();
    isAlive = !weak.expired();
  };
  (calendar.*operation)();
  host.onCallback = [](const std::string&) {};
  return isAlive && weak.expired();
}

}  // namespace quillmere::testing

#endif
