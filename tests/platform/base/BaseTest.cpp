// The small pieces of the base layer: data, errors, settings, texts, UUIDs, observers and scans.

#include <gtest/gtest.h>
#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/base/LargePages.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/base/NSKeyValueObserving.h>
#include <quillmere/platform/base/UTF8.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <random>
#include <regex>
#include <set>

#include "tests/support/FileFaults.h"
#include "tests/support/ScopedTranslation.h"
#include "tests/support/TemporaryFolder.h"

namespace quillmere {
namespace {

using std::string, std::string_view;

TEST(NSData, TakesOverALongTextWithoutCopyingIt) {
  string text(1000, 'x');
  const char* const before = text.data();
  EXPECT_EQ(NSData::dataWithString(std::move(text)).bytes(), before);
}

TEST(NSData, HoldsTheBytesAsTheyWereWhoeverOwnsThem) {
  string text("a\0b", 3);
  const NSData copy = NSData::dataWithBytes(text);
  const auto owner = std::make_shared<string>(text);
  const NSData shared = NSData::dataWithBytesOf(owner, *owner);
  text = "changed";
  EXPECT_EQ(copy.view(), string("a\0b", 3));
  EXPECT_EQ(copy, shared);
  EXPECT_NE(copy, NSData::dataWithBytes("a"));
  EXPECT_EQ(owner.use_count(), 2);
}

TEST(NSData, ReadsAFileThatChangesMeanwhileOrIsReadWithFaults) {
  const testing::TemporaryFolder folder;
  const string begin(5000, 'b'), whole = begin + string(10'000, 'r');
  const struct {
    string meanwhile;
    int faultAt, error;
    bool isRead = true;
  } rows[] = {{whole, 0, 0},         {begin.substr(0, 4096), 0, 0}, {begin, 1, EINTR},
              {whole, 3, EINTR},     {begin, 1, EIO, false},        {begin, 2, EIO, false},
              {whole, 3, EIO, false}};
  for (const auto& row : rows) {
    testing::writeFile(folder / "a", begin);
    const testing::FileMoment afterFirst(testing::FileCall::read,
                                         [&] { testing::writeFile(folder / "a", row.meanwhile); });
    const testing::FileFault fault(testing::FileCall::read, row.faultAt, row.error);
    const auto data = NSData::dataWithContentsOfFile(folder / "a");
    EXPECT_EQ(data,
              row.isRead ? std::optional(NSData::dataWithBytes(row.meanwhile)) : std::nullopt);
  }
}

TEST(LargePages, RoomIsMadeForStrangersWithinReason) {
  constexpr std::uint64_t most = std::uint64_t{256} << 20;
  for (const std::uint64_t length : {std::uint64_t{1000}, most, ~std::uint64_t{0}}) {
    string buffer;
    reserveForStranger(buffer, length);
    EXPECT_EQ(buffer.capacity(), std::min(length, most));
  }
}

TEST(HWPreference, IsWhatTheHostSetsOrTheEnvironmentSays) {
  constexpr const char* key = "QuillmereTestPreference";
  const auto preference = HWPreference::preferenceForKey(key);
  EXPECT_EQ(HWPreference::preferenceForKey(key), preference);
  EXPECT_EQ(preference->stringValue(), std::nullopt);
  EXPECT_EQ(preference->integerValue(), 0);
  const std::pair<const char*, std::int64_t> rows[] = {
      {"-7 days", -7}, {"x1", 0}, {"", 0}, {"9000000000", 9'000'000'000}};
  for (const auto& [text, number] : rows) {
    ::setenv(key, text, 1);
    EXPECT_EQ(preference->stringValue(), text);
    EXPECT_EQ(preference->integerValue(), number) << text;
  }
  preference->setIntegerValue(-3);
  EXPECT_EQ(preference->stringValue(), "-3");
  preference->setStringValue(std::nullopt);
  EXPECT_EQ(preference->integerValue(), 9'000'000'000);
  ::unsetenv(key);
}

TEST(KSDiagnostics, NameThePlaceAndStopOrGoOn) {
  const KSSourceLocation place{"a.cpp", 7};
  const auto abortion = ::testing::KilledBySignal(SIGABRT);
  EXPECT_EXIT(KSFinishPorting(place), abortion, "^a\\.cpp:7: not yet ported\n");
  EXPECT_EXIT(KSRejectUnusedImplementation(place), abortion, "^a\\.cpp:7: .* must not be called\n");
  const auto record = [&] {
    KSRecordBacktrace(string_view("odd", 2), place);
    std::_Exit(0);
  };
  EXPECT_EXIT(record(), ::testing::ExitedWithCode(0), "^a\\.cpp:7: od\n(.*\\[0x.*\n)+");
  EXPECT_EQ(KSSourceLocation::current().line, __LINE__);
}

// What handlers do may change who hears, and who tells.
TEST(NSKeyValueObserving, TellsThoseWhoObserveTheKeyAtThatTime) {
  struct Observed : NSKeyValueObserving {
    using NSKeyValueObserving::didChangeValueForKey;
  };
  auto observed = std::make_shared<Observed>();
  std::vector<string> heard;
  std::array<std::shared_ptr<NSKeyValueObservation>, 4> observations;
  const auto observe = [&](std::size_t i, const string& key, const std::function<void()>& then) {
    observations[i] = observed->observeKey_changeHandler(key, [&heard, i, key, then] {
      heard.push_back(std::to_string(i) + key);
      then();
    });
  };
  observe(0, "a", [&] {
    observations[2].reset();
    if (!observations[3]) observe(3, "a", [&] { observed.reset(); });
  });
  observe(1, "b", [&, held = std::make_shared<string>("held")] {
    observations[1].reset();
    heard.push_back(*held);
  });
  observe(2, "a", [] {});
  observed->didChangeValueForKey("a");
  observed->didChangeValueForKey("b");
  observed->didChangeValueForKey("b");
  EXPECT_EQ(heard, (std::vector<string>{"0a", "1b", "held"}));
  observed->didChangeValueForKey("a");
  EXPECT_EQ(heard.back(), "3a");
  EXPECT_EQ(observed, nullptr);
}

TEST(UTF8, IsToldFromOtherBytesAndComparedWithoutCase) {
  for (const char* valid : {"", "ascii", "\xC3\xBC", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isValidUTF8(valid)) << valid;
  }
  for (const char* invalid : {"\x80", "\xC3", "\xC0\x80", "\xED\xA0\x80", "\xE2\x82x", "\xFF",
                              "\xF4\x90\x80\x80", "a long text with \xE4"}) {
    EXPECT_FALSE(isValidUTF8(invalid)) << invalid;
  }
  for (const auto& [a, b] : {std::pair("Straße Ω", "STRASSE ω"), {"\xFF", "\xFF"}}) {
    EXPECT_TRUE(equalCaseFolded(a, b)) << a;
  }
  for (const auto& [a, b] :
       {std::pair("a", "b"), {"a", ""}, {"A\xFF", "a\xFF"}, {"a", "\xC1\x81"}}) {
    EXPECT_FALSE(equalCaseFolded(a, b) || equalCaseFolded(b, a)) << a << b;
  }
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
  EXPECT_EQ(full->failingURLString(), "http://h/");
  EXPECT_EQ(full->responseData().value().view(), "body");
  const auto odd = NSError::errorWithDomain_code_userInfo(
      "D", 3, {{"NSErrorFailingURLStringKey", plain}, {"ResponseData", "text"}});
  EXPECT_FALSE(odd->localizedRecoverySuggestion() || odd->failingURLString() ||
               odd->responseData());
  EXPECT_EQ(NSError::errorWithPOSIXCode(ENOSPC)->localizedDescription(), "No space left on device");
}

TEST(KSLocalizedString, IsTheHostsTranslationOrTheEnglishText) {
  constexpr const char* english = "Unknown value \"%@\" for FREQ";
  EXPECT_EQ(KSLocalizedString(english, "daily"), "Unknown value \"daily\" for FREQ");
  EXPECT_EQ(KSLocalizedString("a %@ b %@", "x"), "a x b %@");
  EXPECT_EQ(KSLocalizedString("%@ %@", "%@", "x"), "%@ x") << "not what was filled in";
  EXPECT_EQ(KSLocalizedString("none", "x", "y"), "none");

  const testing::ScopedTranslation translation(english, "Unbekannter Wert für FREQ: %@");
  EXPECT_EQ(KSLocalizedString(english, "daily"), "Unbekannter Wert für FREQ: daily");
}

TEST(CFUUID, IsRandomOfVersionFourAndUpperCase) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::array<std::set<char>, 36> digits;  // seen at each place
  for (int i = 0; i < 1000; ++i) {
    const string uuid = CFUUIDCreateString();
    ASSERT_TRUE(std::regex_match(uuid, form)) << uuid;
    for (std::size_t at = 0; at < uuid.size(); ++at) digits[at].insert(uuid[at]);
  }
  for (std::size_t at = 0; at < digits.size(); ++at) {
    const bool isFixed = at == 8 || at == 13 || at == 14 || at == 18 || at == 23;
    EXPECT_EQ(digits[at].size(), isFixed ? 1U : at == 19 ? 4U : 16U) << at;
  }
}

// Every way of scanning against the plain loop, over blocks, tails and every position.
TEST(ByteScan, FindsWhatAPlainLoopFinds) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    string text(random() % 70, 'x');
    for (char& byte : text) {
      if (random() % 30 == 0) byte = ":;\x80\xFF\0\x7F: "[random() % 8];
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
