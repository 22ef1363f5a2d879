#include <quillmere/platform/base/HWObject.h>

#include <cstdio>

namespace quillmere {

HWDebugDictionary HWObject::debugDictionary() const {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  return {{"self", "<" + className() + ": " + address + ">"}};
}

}  // namespace quillmere
