#ifndef QUILLMERE_PLATFORM_BASE_HWOBJECT_H
#define QUILLMERE_PLATFORM_BASE_HWOBJECT_H

#include <quillmere/platform/base/Export.h>
#include <quillmere/platform/dates/NSDate.h>

#include <map>
#include <string>
#include <variant>

namespace quillmere {

/// What an object tells of itself to a developer, by name. What it does not have has no entry.
using HWDebugDictionary = std::map<std::string, std::variant<std::string, NSDate>>;

/// A base of objects that can describe themselves for debugging.
class QUILLMERE_EXPORT HWObject {
 public:
  virtual ~HWObject() = default;
  HWObject(const HWObject&) = delete;
  HWObject& operator=(const HWObject&) = delete;

  /// The class of the object, without namespace.
  virtual std::string className() const = 0;

  /// One entry, "self": class and address, as in "<KBTCalRepetition: 0x55d0c4a2f2c0>". Derived
  /// classes add theirs.
  virtual HWDebugDictionary debugDictionary() const;

 protected:
  HWObject() = default;
};

}  // namespace quillmere

#endif
