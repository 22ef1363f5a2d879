// The small pieces of the base layer: data, errors, texts, UUIDs and scans.

#include <gtest/gtest.h>
#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSError.h>

#include <cerrno>
#include <random>

#include "tests/support/ScopedTranslation.h"

namespace quillmere {
namespace {

TEST(NSData, TakesOverALongTextWithoutCopyingIt) {
  std::string text(1000, 'x');
  const char* const before = text.data();
  EXPECT_EQ(NSData::dataWithString(std::move(text)).bytes(), before);
}

TEST(NSError, TellsItsTextFromTheUserInfoOrFromDomainAndCode) {
  const auto plain = NSError::errorWithDomain_code_userInfo("D", 404, {});
  EXPECT_EQ(plain->localizedDescription(), "The operation could not be completed. (D error 404.)");
  EXPECT_EQ(plain->underlyingError(), nullptr);
  const auto told = NSError::errorWithDomain_code_userInfo(
      "D", 1, {{NSLocalizedDescriptionKey, "gone"}, {NSUnderlyingErrorKey, plain}});
  EXPECT_EQ(told->localizedDescription(), "gone");
  EXPECT_EQ(told->underlyingError(), plain);
  const auto full =
      NSError::errorWithDomain_code_userInfo("D", 2,
                                             {{"NSLocalizedRecoverySuggestion", "wait"},
                                              {"NSErrorFailingURLStringKey", "http://h/"},
                                              {"ResponseData", NSData::dataWithBytes("body")}});
  EXPECT_EQ(full->localizedRecoverySuggestion(), "wait");
  EXPECT_EQ(full->failingURL().value().absoluteString(), "http://h/");
  EXPECT_EQ(full->responseData().value().view(), "body");
  const auto odd = NSError::errorWithDomain_code_userInfo(
      "D", 3, {{"NSErrorFailingURLStringKey", ""}, {"ResponseData", "text"}});
  EXPECT_FALSE(odd->localizedRecoverySuggestion() || odd->failingURL() || odd->responseData());
  EXPECT_EQ(NSError::errorWithPOSIXCode(ENOSPC)->localizedDescription(), "No space left on device");
}

TEST(KSLocalizedString, IsTheHostsTranslationOrTheEnglishText) {
  constexpr const char* english = "Unknown value \"%@\" for FREQ";
  EXPECT_EQ(KSLocalizedString(english, "daily"), "Unknown value \"daily\" for FREQ");
  EXPECT_EQ(KSLocalizedString("a %@ b %@", "x"), "a x b %@");

  const testing::ScopedTranslation translation(english, "Unbekannter Wert für FREQ: %@");
  EXPECT_EQ(KSLocalizedString(english, "daily"), "Unbekannter Wert für FREQ: daily");
}

TEST(CFUUID, IsRandomOfVersionFourAndUpperCase) {
  const std::string uuid = CFUUIDCreateString();
  EXPECT_EQ(uuid.size(), 36U);
  EXPECT_EQ(uuid.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << uuid;
  EXPECT_EQ(uuid[14], '4');
  EXPECT_NE(uuid, CFUUIDCreateString());
}

// Every way of scanning against the plain loop, over blocks, tails and every position.
TEST(ByteScan, FindsWhatAPlainLoopFinds) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 70, 'x');
    for (char& byte : text) {
      if (random() % 30 == 0) byte = ":;\x80\xFF\0\x7F:<"[random() % 8];
    }
    const char* const from = text.data();
    const char* const end = from + text.size();
    const auto index = [from](const char* found) { return found - from; };
    const auto either = std::find_if(from, end, [](char c) { return c == ':' || c == ';'; });
    const auto nonASCII =
        std::find_if(from, end, [](char c) { return static_cast<unsigned char>(c) > 127; });
    ASSERT_EQ(index(findEither(from, end, ':', ';')), index(either));
    ASSERT_EQ(index(scan::findEither<scan::Word>(from, end, ':', ';')), index(either));
    ASSERT_EQ(index(findNonASCII(from, end)), index(nonASCII));
    ASSERT_EQ(index(scan::findNonASCII<scan::Word>(from, end)), index(nonASCII));
    ASSERT_EQ(index(findByte(from, end, ':')), index(std::find(from, end, ':')));
    ASSERT_EQ(scan::any(from, end, [](auto block) { return block.equal(':') | block.equal(';'); }),
              either != end);
    const auto low = std::find_if(from, end, [](char c) { return c < ' '; });
    ASSERT_EQ(scan::any(from, end, [](auto block) { return block.belowOrNonASCII(' '); }),
              low != end);
  }
}

}  // namespace
}  // namespace quillmere
