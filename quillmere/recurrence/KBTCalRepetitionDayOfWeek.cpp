#include <quillmere/recurrence/KBTCalRepetitionDayOfWeek.h>

namespace quillmere {

std::string KBTCalRepetitionDayOfWeek::description() const {
  return "KBTCalRepetitionDayOfWeek " + std::to_string(dayOfTheWeek_) + " with offset " +
         std::to_string(weekNumber_);
}

}  // namespace quillmere
