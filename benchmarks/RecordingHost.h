#ifndef QUILLMERE_BENCHMARKS_RECORDINGHOST_H
#define QUILLMERE_BENCHMARKS_RECORDINGHOST_H

#include <quillmere/calendars/KBTSynchingCalendarDelegate.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace benchmarks {

/// A host that keeps the name and the version of every object, and nothing else.
class RecordingHost : public quillmere::KBTSynchingCalendarDelegate {
 public:
  struct Object {
    std::string uniqueName;
    std::string version;
  };

  const std::vector<std::shared_ptr<Object>>& objects() const { return objects_; }
  bool hasFetched() const { return hasFetched_; }

  std::function<void()> onCompletion = [] {};  // of a fetch

 private:
  using Calendar = quillmere::KBTSynchingCalendar;
  using ClientObject = quillmere::KBTClientObject;
  using Reader = std::shared_ptr<quillmere::KBTCalObject>;
  using Error = quillmere::NSErrorPtr;
  using string = std::string;

  ClientObject synchingCalendar_newObjectNamed_versionString_data(Calendar&, const string& name,
                                                                  const string& version,
                                                                  const Reader&) override {
    objects_.push_back(std::make_shared<Object>(Object{name, version}));
    return objects_.back();
  }
  void synchingCalendarCompletedFetchExternalChanges_withError(Calendar&,
                                                               const Error& error) override {
    hasFetched_ = !error;
    onCompletion();
  }
  void synchingCalendar_updateForObject_versionString_data(Calendar&, const ClientObject& object,
                                                           const string& version,
                                                           const Reader&) override {
    static_cast<Object*>(object.get())->version = version;
  }
  std::optional<string> synchingCalendar_uniqueNameForObject(Calendar&,
                                                             const ClientObject& object) override {
    return static_cast<const Object*>(object.get())->uniqueName;
  }
  std::optional<string> synchingCalendar_versionStringForObject(
      Calendar&, const ClientObject& object) override {
    return static_cast<const Object*>(object.get())->version;
  }

  void synchingCalendar_setUniqueName_forObject(Calendar&, const string&,
                                                const ClientObject&) override {}
  std::shared_ptr<quillmere::KBTICSDataSource> synchingCalendar_icsDataForObject(
      Calendar&, const ClientObject&) override {
    return nullptr;
  }
  std::optional<quillmere::NSDate> synchingCalendarEarliestDate(Calendar&) override {
    return std::nullopt;
  }
  std::optional<quillmere::NSDate> synchingCalendarLatestDate(Calendar&) override {
    return std::nullopt;
  }
  void synchingCalendarBeganFetchExternalChanges(Calendar&) override {}
  void synchingCalendar_deletionForObject(Calendar&, const ClientObject&) override {}
  void synchingCalendarCompletedCheckForExternalChanges_changes(Calendar&, bool) override {}
  void synchingCalendar_didInsert_versionString(Calendar&, const ClientObject&,
                                                const string&) override {}
  void synchingCalendar_didUpdate_versionString(Calendar&, const ClientObject&,
                                                const string&) override {}
  void synchingCalendar_didDelete(Calendar&, const ClientObject&) override {}
  void synchingCalendar_failedSavingObject_withError(Calendar&, const quillmere::KBTFailedObject&,
                                                     const Error&) override {}
  void synchingCalendarCompletedSave(Calendar&) override {}

  std::vector<std::shared_ptr<Object>> objects_;
  bool hasFetched_ = false;
};

}  // namespace benchmarks

#endif
