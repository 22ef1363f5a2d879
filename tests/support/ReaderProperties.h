#ifndef QUILLMERE_TESTS_SUPPORT_READERPROPERTIES_H
#define QUILLMERE_TESTS_SUPPORT_READERPROPERTIES_H

#include <quillmere/platform/base/NSData.h>

namespace quillmere::testing {

/// Reads `document` in every way and aborts, after telling which, where one of these does not hold:
///   - the reader ends, after at most as many lines as there are bytes, and stays at its end;
///   - key, value and parameters asked twice are the same, and so are those of a second pass after
///     `reset()`;
///   - keys and parameters point into the document, key first;
///   - an entry's `icsData()` is the slice of the document that begins at its "BEGIN" line, and
///   reading
///     that slice gives the entry's lines again.
/// For tests and fuzzers.
void checkReader(const NSData& document);

}  // namespace quillmere::testing

#endif
