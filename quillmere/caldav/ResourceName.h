#ifndef QUILLMERE_CALDAV_RESOURCENAME_H
#define QUILLMERE_CALDAV_RESOURCENAME_H

#include <string>
#include <string_view>

// Internal: how resources are named.
namespace quillmere {

/// The unique name of the object behind an address, the other way of appending ".ics" to a name:
/// the path's last component, percent-decoded, without path extension. So "a%40b.ics" is "a@b",
/// which a server that escapes makes of "a@b.ics".
///
/// An escape stays one where the name would not lead back to the address without it: "/", "%", "?",
/// "#", control characters and bytes that are not UTF-8. For the same reason a ":" that would end a
/// scheme becomes one. Escapes are in upper case, whichever the server's are.
std::string uniqueNameOfHref(std::string_view href);

}  // namespace quillmere

#endif
