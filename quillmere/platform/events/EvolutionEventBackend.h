#ifndef QUILLMERE_PLATFORM_EVENTS_EVOLUTIONEVENTBACKEND_H
#define QUILLMERE_PLATFORM_EVENTS_EVOLUTIONEVENTBACKEND_H

#include <quillmere/platform/events/EventBackend.h>

#include <memory>

// Internal: the event store in the desktop's Evolution Data Server.
namespace quillmere {

/// Throws an `EventError` when there is no session bus or the server is not on it.
std::shared_ptr<EventBackend> openEvolutionEventBackend();

}  // namespace quillmere

#endif
