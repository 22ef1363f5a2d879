#ifndef QUILLMERE_PLATFORM_BASE_MAKEOBJECT_H
#define QUILLMERE_PLATFORM_BASE_MAKEOBJECT_H

#include <memory>
#include <utility>

namespace quillmere {

/// Makes a reference-counted object of a class whose constructors are protected, in one allocation.
/// The static `init...` functions use it; hosts call those, or subclass.
template <class Object, class... Arguments>
std::shared_ptr<Object> makeObject(Arguments&&... arguments) {
  struct Made : Object {
    explicit Made(Arguments&&... inner) : Object(std::forward<Arguments>(inner)...) {}
  };
  return std::make_shared<Made>(std::forward<Arguments>(arguments)...);
}

}  // namespace quillmere

#endif
