#include <quillmere/ical/KBTCalObjectEntry.h>
#include <quillmere/platform/base/makeObject.h>

#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace quillmere {

std::shared_ptr<KBTCalObjectEntry> KBTCalObjectEntry::initWithData_startPtr(NSData data,
                                                                            const char* startPtr) {
  return makeObject<KBTCalObjectEntry>(std::move(data), std::move(startPtr));
}

KBTCalObjectEntry::KBTCalObjectEntry(NSData data, const char* startPtr)
    : KBTCalObject(std::move(data)), startPtr_(startPtr) {
  cursor_ = startPtr_;
}

void KBTCalObjectEntry::reset() {
  cursor_ = startPtr_;
  hitEnd_ = false;
}

bool KBTCalObjectEntry::isAtEnd() const { return hitEnd_; }

bool KBTCalObjectEntry::nextLine() {
  if (hitEnd_) return false;
  const bool hasLine = KBTCalObject::nextLine();
  hitEnd_ = !hasLine || key() == "END";  // whichever component it closes
  return hasLine;
}

NSData KBTCalObjectEntry::icsData() {
  while (nextLine()) {
  }
  return NSData::dataWithBytes({startPtr_, static_cast<std::size_t>(cursor_ - startPtr_)});
}

}  // namespace quillmere
