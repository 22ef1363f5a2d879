#include <gtest/gtest.h>
#include <quillmere/caldav/ResourceName.h>
#include <quillmere/platform/net/NSURL.h>

namespace quillmere {
namespace {

TEST(ResourceName, IsWhatItsAddressWasMadeFrom) {
  const struct {
    const char* href;
    const char* name;
  } rows[] = {
      {"/c/a.ics", "a"},
      {"http://host/c/a.b.ics", "a.b"},
      {"a.ICS", "a"},
      {"/c/a", "a"},
      {"/c/.ics", ".ics"},
      {"/c/a.ics/", "a"},
      {"/c/a.ics?x=y#z", "a"},
      {"/c/b%40c.ics", "b@c"},
      {"/c/b@c.ics", "b@c"},
      {"/c/two%20words.ics", "two words"},
      {"/c/two words.ics", "two words"},
      {"/c/h%c3%bct.ics", "h\xC3\xBCt"},
      {"/c/h\xC3\xBCt%2eics", "h\xC3\xBCt"},
      {"/c/a%2fb%2Fc.ics", "a%2Fb%2Fc"},
      {"/c/50%25%3f%23.ics", "50%25%3F%23"},
      {"/c/a%0d%7F.ics", "a%0D%7F"},
      {"/c/a%ffb%40.ics", "a%ffb%40"},
      {"/c/a%4g%.ics", "a%4g%"},
      {"/c/urn%3auuid%3A1.ics", "urn%3Auuid:1"},
      {"/c/urn:uuid:1.ics", "urn%3Auuid:1"},
      {"/c/b%40c%3a1.ics", "b@c:1"},
      {"/c/a+b-c.d1:e.ics", "a+b-c.d1%3Ae"},
      {"", ""},
      {"/", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(uniqueNameOfHref(row.href), row.name) << row.href;
}

// Whatever a server answers, a name must lead back to one resource of the collection it was found
// in, the same each time.
TEST(ResourceName, LeadsBackToItsResource) {
  const NSURL collection = NSURL::URLWithString("http://host/c/").value();
  for (unsigned byte = 0; byte < 256; ++byte) {
    for (const char* const before : {"", "x", "x@"}) {
      constexpr const char* digits = "0123456789abcdef";
      const std::string href =
          std::string("/c/") + before + "%" + digits[byte / 16] + digits[byte % 16] + "y.ics";
      const std::string name = uniqueNameOfHref(href);
      const auto address = NSURL::URLWithString_relativeToURL(name + ".ics", collection);
      ASSERT_TRUE(address) << href;
      EXPECT_TRUE(address->wireString().starts_with("http://host/c/")) << href;
      EXPECT_EQ(uniqueNameOfHref(address->wireString()), name) << href;
    }
  }
}

}  // namespace
}  // namespace quillmere
