#include <quillmere/platform/net/HTTPFields.h>
#include <quillmere/platform/net/NSURLRequest.h>

#include <algorithm>

namespace quillmere {
namespace {

// A colon after the name makes an odd field ("If-Match:: x"), but a field that can be sent.
bool isSendableName(std::string_view name) {
  if (name.ends_with(':')) name.remove_suffix(1);
  return isToken(name);
}

bool isSendableValue(std::string_view value) {
  constexpr std::string_view endsOfLine("\r\n\0", 3);
  return value.find_first_of(endsOfLine) == std::string_view::npos;
}

}  // namespace

std::optional<std::string> NSURLRequest::valueForHTTPHeaderField(std::string_view field) const {
  return joinedFieldValue(allHTTPHeaderFields_, field);
}

bool NSURLRequest::isSendable() const {
  const std::string address = URL_ ? URL_->wireString() : "";
  return !address.empty() && address.size() <= maximumURLLength && isToken(HTTPMethod_) &&
         std::all_of(allHTTPHeaderFields_.begin(), allHTTPHeaderFields_.end(),
                     [](const auto& field) {
                       return isSendableName(field.first) && isSendableValue(field.second);
                     });
}

NSMutableURLRequest NSMutableURLRequest::requestWithURL(const NSURL& URL) {
  NSMutableURLRequest request;
  request.setURL(URL);
  return request;
}

void NSMutableURLRequest::setValue_forHTTPHeaderField(std::optional<std::string> value,
                                                      std::string_view field) {
  auto& fields = allHTTPHeaderFields_;
  const auto found = std::find_if(fields.begin(), fields.end(), [field](const auto& entry) {
    return equalIgnoringCase(entry.first, field);
  });
  if (found == fields.end()) {
    if (value) fields.emplace_back(field, *std::move(value));
  } else if (value) {
    found->second = *std::move(value);
  } else {
    fields.erase(found);
  }
}

}  // namespace quillmere
