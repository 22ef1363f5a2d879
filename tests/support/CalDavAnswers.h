#ifndef QUILLMERE_TESTS_SUPPORT_CALDAVANSWERS_H
#define QUILLMERE_TESTS_SUPPORT_CALDAVANSWERS_H

#include <string>

#include "tests/support/ScriptedServer.h"

namespace quillmere::testing {

/// A row of a multi-status.
inline std::string response(const std::string& href, const std::string& props,
                            const std::string& status = "HTTP/1.1 200 OK") {
  return "<response><href>" + href + "</href><propstat><prop>" + props + "</prop><status>" +
         status + "</status></propstat></response>";
}

/// The row of a resource, without a text in a listing.
inline std::string resource(const std::string& href, const std::string& etag,
                            const std::string& text = "") {
  return response(href, "<getetag>" + etag + "</getetag>" +
                            (text.empty() ? "" : "<calendar-data>" + text + "</calendar-data>"));
}

inline Answer multistatus(const std::string& responses) {
  return {.status = 207, .body = "<multistatus>" + responses + "</multistatus>"};
}

/// The tag of a collection.
inline Answer tag(const std::string& text) {
  return multistatus(response("/c/", "<getctag>" + text + "</getctag>"));
}

}  // namespace quillmere::testing

#endif
