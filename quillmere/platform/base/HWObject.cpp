#include <quillmere/platform/base/HWObject.h>

#include <sstream>

namespace quillmere {

HWDebugDictionary HWObject::debugDictionary() const {
  std::ostringstream self;
  self << '<' << className() << ": " << static_cast<const void*>(this) << '>';
  return {{"self", self.str()}};
}

}  // namespace quillmere
