#ifndef DAVPROBE_COLLECTION_H
#define DAVPROBE_COLLECTION_H

#include <quillmere/caldav/KBTDavConnection.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace davprobe {

/// A resource of a collection, as a listing has it.
struct Resource {
  std::string address;  ///< as the server wrote it
  std::string etag;
  std::size_t size = 0;  ///< of its text; 0 where the listing was without contents
};

/// By name: the address's last path component, decoded, without ".ics".
using Resources = std::map<std::string, Resource>;

/// A collection of which every operation waits for its outcome; each throws examples::Failure.
class Collection {
 public:
  /// Null user and password for a server that asks for none.
  Collection(const quillmere::NSURL& url, std::optional<std::string> user,
             std::optional<std::string> password);
  Collection(const Collection&) = delete;
  Collection& operator=(const Collection&) = delete;
  ~Collection() { principal_->invalidate(); }

  bool canContainEvents() const { return connection_->canContainEvents(); }
  bool canContainTodos() const { return connection_->canContainTodos(); }

  /// Null when the server has none.
  std::optional<std::string> tag();
  /// Events and to-dos.
  Resources resources(bool withContents);
  /// The text of a resource.
  std::string textOf(const std::string& name);
  /// Makes a resource or puts this one in its place; its new entity tag.
  std::string put(const std::string& name, const quillmere::NSData& text);
  /// A resource that is not there is none to delete, and no failure.
  void remove(const std::string& name);

 private:
  class Outcome;

  /// Starts an operation and runs the loop until it has ended.
  Outcome& waitFor(const std::function<void(quillmere::KBTDavConnection&)>& start);

  std::shared_ptr<quillmere::KBTDavPrincipal> principal_;
  std::shared_ptr<quillmere::KBTDavConnection> connection_;
  std::shared_ptr<Outcome> outcome_;
};

}  // namespace davprobe

#endif
