#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/events/EKCalendar.h>

namespace quillmere {

std::shared_ptr<EKCalendar> EKCalendar::calendar() {
  return makeObject<EKCalendar>(CFUUIDCreateString(), std::nullopt);
}

}  // namespace quillmere
