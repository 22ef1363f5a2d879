#include <quillmere/ical/FreeBusyPeriod.h>
#include <quillmere/ical/KBTCalObject.h>
#include <quillmere/ical/KBTFreeBusy.h>
#include <quillmere/platform/base/KSStringTable.h>

#include <cstdint>
#include <string_view>
#include <utility>

namespace quillmere {
namespace {

constexpr std::int64_t unknownErrorCode = 3;

NSErrorPtr malformedPeriod(std::string_view text) {
  return NSError::errorWithDomain_code_userInfo(
      KBTDavConnectionErrorDomain, unknownErrorCode,
      {{NSLocalizedDescriptionKey, KSLocalizedString("unknown CalDav error")},
       {KBTFreeBusyMalformedPeriodKey, std::string(text)}});
}

std::string descriptionOf(std::optional<NSDate> date) {
  return date ? date->description() : "(null)";
}

}  // namespace

std::shared_ptr<KBTFreeBusy> KBTFreeBusy::initWithStart_andEnd_isTentative(
    std::optional<NSDate> start, std::optional<NSDate> end, bool tentative) {
  return makeObject<KBTFreeBusy>(std::move(start), std::move(end), std::move(tentative));
}

std::optional<std::vector<KBTFreeBusy::Values>> KBTFreeBusy::parse(const NSData& data,
                                                                   NSErrorPtr* error) {
  std::vector<Values> values;
  const auto reader = KBTCalObject::initWithData(data);
  while (reader->nextLine()) {
    if (reader->key() != "FREEBUSY" || !reader->value()) continue;
    const bool tentative = reader->valueForModifier("FBTYPE") == "BUSY-TENTATIVE";
    std::optional<std::string> malformed;
    forEachPiece(*reader->value(), [&](std::string_view piece) {
      const auto period = periodOfAnswer(piece);
      if (period) {
        values.push_back({period->start, period->end, tentative});
      } else {
        malformed = std::string(piece);
      }
      return period.has_value();
    });
    if (malformed) {
      if (error) *error = malformedPeriod(*malformed);
      return std::nullopt;
    }
  }
  return values;
}

std::string KBTFreeBusy::description() const {
  return (tentative_ ? "Tentative:" : "") + descriptionOf(start_) + " to " + descriptionOf(end_);
}

}  // namespace quillmere
