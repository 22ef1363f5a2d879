// Any bytes as a document for the reader.

#include "fuzz/Fuzzing.h"
#include "tests/support/ReaderProperties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
  using namespace quillmere;
  testing::checkReader(NSData::dataWithBytes(fuzzing::viewOf(bytes, count)));
  return 0;
}
