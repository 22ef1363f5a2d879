#ifndef QUILLMERE_PLATFORM_EVENTS_SQLITEEVENTBACKEND_H
#define QUILLMERE_PLATFORM_EVENTS_SQLITEEVENTBACKEND_H

#include <quillmere/platform/events/EventBackend.h>

#include <memory>
#include <string>

// Internal: the event store in an SQLite database.
namespace quillmere {

/// The database at `path`, or ":memory:". Throws an `EventError` when it cannot be opened.
std::shared_ptr<EventBackend> openSQLiteEventBackend(const std::string& path);

}  // namespace quillmere

#endif
