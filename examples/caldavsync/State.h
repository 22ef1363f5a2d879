#ifndef CALDAVSYNC_STATE_H
#define CALDAVSYNC_STATE_H

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace caldavsync {

enum class Kind { event, toDo };

/// An object as both sides had it when they were last in step.
struct Object {
  Kind kind = Kind::event;
  std::string name;        ///< unique name
  std::string file;        ///< in the calendar's folder
  std::string etag;        ///< of the server's version
  std::uint64_t hash = 0;  ///< of the file's bytes
};
using ObjectPtr = std::shared_ptr<Object>;

/// A calendar, the folder that mirrors it, and what is in step.
struct Calendar {
  std::string url;
  std::string folder;                          ///< a name in the account's folder
  std::map<Kind, std::string> cachingStrings;  ///< none: the server is to be asked for its list
  std::map<std::string, ObjectPtr> objects;    ///< by unique name
};

/// What one run leaves for the next.
struct State {
  std::string server;
  std::optional<std::string> user;
  std::map<std::string, Calendar> calendars;  ///< by URL
};

/// Null when nothing was kept. Throws examples::Failure when the file cannot be used.
std::optional<State> readState(const std::filesystem::path& file);

/// Throws examples::Failure.
void writeState(const std::filesystem::path& file, const State& state);

}  // namespace caldavsync

#endif
