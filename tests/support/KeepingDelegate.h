#ifndef QUILLMERE_TESTS_SUPPORT_KEEPINGDELEGATE_H
#define QUILLMERE_TESTS_SUPPORT_KEEPINGDELEGATE_H

#include <memory>
#include <string>

#include "tests/support/RecordingDelegate.h"

namespace quillmere::testing {

/// Keeps its objects, with their texts, as fetches report them.
class KeepingDelegate : public RecordingDelegate {
 public:
  KBTClientObject synchingCalendar_newObjectNamed_versionString_data(
      KBTSynchingCalendar& calendar, const std::string& name, const std::string& version,
      const std::shared_ptr<KBTCalObject>& data) override {
    auto object = RecordingDelegate::synchingCalendar_newObjectNamed_versionString_data(
        calendar, name, version, data);
    Item::of(object).ics = readers.back();
    return object;
  }
  void synchingCalendar_updateForObject_versionString_data(
      KBTSynchingCalendar& calendar, const KBTClientObject& object, const std::string& version,
      const std::shared_ptr<KBTCalObject>& data) override {
    RecordingDelegate::synchingCalendar_updateForObject_versionString_data(calendar, object,
                                                                           version, data);
    Item::of(object).ics = readers.back();
  }
  void synchingCalendar_deletionForObject(KBTSynchingCalendar& calendar,
                                          const KBTClientObject& object) override {
    RecordingDelegate::synchingCalendar_deletionForObject(calendar, object);
    objects.erase(Item::of(object).name);
  }
};

}  // namespace quillmere::testing

#endif
