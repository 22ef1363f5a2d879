#ifndef QUILLMERE_PLATFORM_EVENTS_CHANGEWATCH_H
#define QUILLMERE_PLATFORM_EVENTS_CHANGEWATCH_H

#include <glib.h>

#include <functional>
#include <memory>
#include <string>

// Internal: how a store learns of what other processes write.
namespace quillmere {

/// Asks a question on the main queue whenever something is written to a file, until it is answered
/// with yes or some time has passed: a writer's bytes are there before what it wrote can be seen.
class ChangeWatch {
 public:
  /// Does nothing when the file is not there. `question` may still be being asked on the main queue
  /// after this was destroyed on another thread, so it has to keep alive what it uses.
  ChangeWatch(const std::string& path, std::function<bool()> question);
  ChangeWatch(const ChangeWatch&) = delete;
  ChangeWatch& operator=(const ChangeWatch&) = delete;
  ~ChangeWatch();

 private:
  struct State;

  std::shared_ptr<State> state_;
  GSource* source_ = nullptr;
};

}  // namespace quillmere

#endif
