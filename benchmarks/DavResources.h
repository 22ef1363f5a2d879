#ifndef QUILLMERE_BENCHMARKS_DAVRESOURCES_H
#define QUILLMERE_BENCHMARKS_DAVRESOURCES_H

#include <cstddef>
#include <string>
#include <string_view>

namespace benchmarks {

/// A calendar object resource (RFC 4791 section 4.1).
struct DavResource {
  std::string name;
  std::string etag;
  std::string calendar;  // about 2 KB of iCalendar text
};

/// Makes resources of the first events of a new generator, each with the time zones before it.
class DavResourceGenerator {
 public:
  explicit DavResourceGenerator(std::size_t count);
  DavResource next();

  /// Which resource of a generator has that name; the first is 0.
  static std::size_t numberOf(std::string_view name);

 private:
  std::string calendar_;
  std::size_t head_;  // its length
  std::size_t at_;
  std::size_t made_ = 0;
};

/// The answer to a report on a collection, made a response at a time.
class MultiStatus {
 public:
  /// With room for so many bytes.
  explicit MultiStatus(std::size_t capacity = 0);
  /// `properties` is XML. What it holds beyond "D:" and "C:", of CalDAV, declares its namespaces.
  void addProperties(std::string_view href, std::string_view properties);
  /// Without contents where `calendar`, which is escaped already, is empty.
  void addResource(std::string_view href, std::string_view etag, std::string_view calendar = {});
  /// Closes the document, with more elements at its end where there are any.
  std::string finish(std::string_view more = {});

  static constexpr std::string_view status = "HTTP/1.1 200 OK";

 private:
  std::string text_;
};

/// Escapes text for XML. `carriageReturn` is how it is to have that character: as such, or escaped.
std::string xmlEscaped(std::string_view text, std::string_view carriageReturn);

}  // namespace benchmarks

#endif
