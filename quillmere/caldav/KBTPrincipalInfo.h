#ifndef QUILLMERE_CALDAV_KBTPRINCIPALINFO_H
#define QUILLMERE_CALDAV_KBTPRINCIPALINFO_H

#include <quillmere/platform/base/AtomicOptional.h>
#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/base/makeObject.h>
#include <quillmere/platform/net/NSURL.h>

#include <concepts>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace quillmere {

/// A principal that a search has found. Every value is null until it is set, and any thread may set
/// it. A null pointer is no text: null is `std::nullopt`.
class QUILLMERE_EXPORT KBTPrincipalInfo {
 public:
  static std::shared_ptr<KBTPrincipalInfo> init() { return makeObject<KBTPrincipalInfo>(); }

  /// The principal's URL, for `KBTDavPrincipal::principalFromInfo`.
  std::optional<NSURL> principalURL() const { return principalURL_.get(); }
  void setPrincipalURL(std::optional<NSURL> URL) { principalURL_.set(std::move(URL)); }
  /// The name for people.
  std::optional<std::string> name() const { return name_.get(); }
  void setName(std::optional<std::string> name) { name_.set(std::move(name)); }
  void setName(std::same_as<std::nullptr_t> auto) = delete;
  /// A calendar user address (RFC 4791 section 6.2.3) with its "mailto:".
  std::optional<std::string> email() const { return email_.get(); }
  void setEmail(std::optional<std::string> email) { email_.set(std::move(email)); }
  void setEmail(std::same_as<std::nullptr_t> auto) = delete;
  /// A calendar user address with its "urn:".
  std::optional<std::string> urn() const { return urn_.get(); }
  void setUrn(std::optional<std::string> urn) { urn_.set(std::move(urn)); }
  void setUrn(std::same_as<std::nullptr_t> auto) = delete;

 protected:
  KBTPrincipalInfo() = default;

 private:
  AtomicOptional<NSURL> principalURL_;
  AtomicOptional<std::string> name_;
  AtomicOptional<std::string> email_;
  AtomicOptional<std::string> urn_;
};

}  // namespace quillmere

#endif
