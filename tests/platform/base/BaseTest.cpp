// The small pieces of the base layer: data, errors, settings, texts, UUIDs, observers and scans.

#include <gtest/gtest.h>
#include <libintl.h>
#include <quillmere/platform/base/AtomicOptional.h>
#include <quillmere/platform/base/ByteScan.h>
#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/base/HWObject.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/platform/base/KSStringTable.h>
#include <quillmere/platform/base/LargePages.h>
#include <quillmere/platform/base/NSBundle.h>
#include <quillmere/platform/base/NSData.h>
#include <quillmere/platform/base/NSError.h>
#include <quillmere/platform/base/NSKeyValueObserving.h>
#include <quillmere/platform/base/UTF8.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <regex>
#include <set>

#include "tests/support/FileFaults.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// What the system was advised of last.
char* advisedStart = nullptr;
std::size_t advisedLength = 0;

}  // namespace

extern "C" int madvise(void* start, std::size_t length, int advice) noexcept {
  if (advice == MADV_HUGEPAGE) {
    advisedStart = static_cast<char*>(start);
    advisedLength = length;
  }
  return static_cast<int>(::syscall(SYS_madvise, start, length, advice));
}

namespace quillmere {
namespace {

using std::string, std::string_view, testing::FileCall, testing::FileFault;

TEST(NSData, TakesOverALongTextWithoutCopyingIt) {
  string text(1000, 'x');
  const char* const before = text.data();
  EXPECT_EQ(NSData::dataWithString(std::move(text)).bytes(), before);
}

TEST(NSData, HoldsTheBytesAsTheyWereWhoeverOwnsThem) {
  string text("a\0b", 3);
  const NSData copy = NSData::dataWithBytes(text);
  const auto owner = std::make_shared<string>(text);
  const NSData shared = NSData::dataWithBytesOf(owner, string_view(*owner).substr(1));
  text = "changed";
  EXPECT_EQ(copy.view(), string_view("a\0b", 3));
  EXPECT_EQ(copy, NSData::dataWithString({"a\0b", 3}));
  EXPECT_NE(copy, NSData::dataWithBytes("a"));
  EXPECT_EQ(shared.view(), copy.view().substr(1));
  EXPECT_EQ(owner.use_count(), 2);
  EXPECT_EQ(NSData::dataWithBytes(""), NSData());
  EXPECT_EQ(NSData::dataWithString(""), NSData());
}

TEST(NSData, ReadsAFileThatChangesMeanwhileOrIsReadWithFaults) {
  const testing::TemporaryFolder folder;
  const string path = folder / "a.ics";
  const string begin(5000, 'b'), rest(10'000, 'r');
  const struct {
    string meanwhile;
    int faultAt, error;
    std::optional<string> expected;
  } rows[] = {{begin + rest, 0, 0, begin + rest},
              {"b", 0, 0, "b"},
              {"", 0, 0, ""},
              {begin, 1, EINTR, begin},
              {begin + rest, 3, EINTR, begin + rest},
              {begin, 1, EIO, {}},
              {begin, 2, EIO, {}},
              {begin + rest, 3, EIO, {}}};
  for (const auto& row : rows) {
    testing::writeFile(path, begin);
    testing::beforeNextRead([&] { testing::writeFile(path, row.meanwhile); });
    const FileFault fault(FileCall::read, row.faultAt, row.error);
    const auto data = NSData::dataWithContentsOfFile(path);
    EXPECT_TRUE(FileFault::happened());
    EXPECT_EQ(data ? std::optional<string>(data->view()) : std::nullopt, row.expected);
  }
}

TEST(LargePages, AreAskedForWhereABufferHoldsSome) {
  constexpr std::size_t page = std::size_t{2} << 20;
  string buffer(4 * page, 'x');
  auto* const first = reinterpret_cast<char*>(
      (reinterpret_cast<std::uintptr_t>(buffer.data()) + page - 1) / page * page);
  const struct {
    std::ptrdiff_t start;
    std::size_t length, advised;
  } rows[] = {{0, page, page},         {0, 2 * page + 5, 2 * page}, {1, page, 0},
              {1, 2 * page - 1, page}, {1, 3 * page - 2, page},     {0, page - 1, 0}};
  for (const auto& [start, length, advised] : rows) {
    advisedLength = 0;
    advisedStart = nullptr;
    preferLargePages(first + start, length);
    EXPECT_EQ(advisedLength, advised) << start << " " << length;
    EXPECT_EQ(advisedStart, advised == 0 ? nullptr : start > 0 ? first + page : first);
  }
  EXPECT_EQ(buffer, string(4 * page, 'x'));
}

TEST(LargePages, ReserveForStrangersWithinReason) {
  constexpr std::uint64_t most = std::uint64_t{256} << 20;
  for (const std::uint64_t length : {std::uint64_t{1000}, most, most + 1, ~std::uint64_t{0}}) {
    string buffer;
    advisedLength = 0;
    reserveForStranger(buffer, length);
    EXPECT_EQ(buffer.capacity(), std::min(length, most));
    EXPECT_EQ(advisedLength > 0, length >= most);
  }
}

TEST(HWPreference, IsWhatTheHostSetsOrTheEnvironmentSays) {
  const auto preference = HWPreference::preferenceForKey("QuillmereTestPreference");
  EXPECT_EQ(HWPreference::preferenceForKey("QuillmereTestPreference"), preference);
  EXPECT_NE(HWPreference::preferenceForKey("QuillmereTestPreferenc"), preference);
  EXPECT_EQ(preference->stringValue(), std::nullopt);
  EXPECT_EQ(preference->integerValue(), 0);
  const std::pair<const char*, std::int64_t> rows[] = {
      {"12", 12}, {"-7 days", -7}, {"x1", 0}, {"", 0}, {"9000000000", 9'000'000'000}};
  for (const auto& [text, number] : rows) {
    ::setenv("QuillmereTestPreference", text, 1);
    EXPECT_EQ(preference->stringValue(), text);
    EXPECT_EQ(preference->integerValue(), number) << text;
  }
  preference->setIntegerValue(-3);
  EXPECT_EQ(preference->stringValue(), "-3");
  preference->setStringValue("");
  EXPECT_EQ(preference->stringValue(), "");
  preference->setStringValue(std::nullopt);
  EXPECT_EQ(preference->integerValue(), 9'000'000'000);
  ::unsetenv("QuillmereTestPreference");
}

TEST(NSBundle, KnowsWhatTheHostSaysOfItself) {
  NSBundle& bundle = NSBundle::mainBundle();
  EXPECT_TRUE(bundle.objectForInfoDictionaryKey("CFBundleShortVersionString").has_value());
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("Test"), std::nullopt);
  for (const char* value : {"1", "2"}) {
    bundle.setObject_forInfoDictionaryKey(value, "Test");
    EXPECT_EQ(NSBundle::mainBundle().objectForInfoDictionaryKey("Test"), value);
  }
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

TEST(HWObject, NamesItsClassAndAddress) {
  struct Named : HWObject {
    string className() const override { return "Name"; }
  } object;
  char self[64];
  std::snprintf(self, sizeof self, "<Name: %p>", static_cast<void*>(&object));
  EXPECT_EQ(object.debugDictionary(), (HWDebugDictionary{{"self", self}}));
}

TEST(AtomicOptional, HoldsAValueOrNone) {
  AtomicOptional<string> optional;
  EXPECT_EQ(optional.get(), std::nullopt);
  optional.set("a");
  EXPECT_EQ(optional.get(), "a");
  optional.set(std::nullopt);
  EXPECT_EQ(optional.get(), std::nullopt);
}

// What handlers do may change who hears, and who tells.
TEST(NSKeyValueObserving, TellsThoseWhoObserveTheKeyAtThatTime) {
  struct Observed : NSKeyValueObserving {
    using NSKeyValueObserving::didChangeValueForKey;
  };
  auto observed = std::make_shared<Observed>();
  std::vector<string> heard;
  std::array<std::shared_ptr<NSKeyValueObservation>, 5> observations;
  const auto observe = [&](
                           std::size_t i, string key, std::function<void()> then = [] {}) {
    observations[i] = observed->observeKey_changeHandler(key, [&heard, i, key, then] {
      heard.push_back(std::to_string(i) + key);
      then();
    });
  };
  observe(0, "a", [&] {
    observations[2].reset();
    if (!observations[4]) observe(4, "a", [&] { observed.reset(); });
  });
  observe(1, "b");
  observe(2, "a");
  observe(3, "a");
  observed->didChangeValueForKey("a");
  EXPECT_EQ(heard, (std::vector<string>{"0a", "3a"}));
  observed->didChangeValueForKey("b");
  EXPECT_EQ(heard.back(), "1b");
  observe(3, "c", [&, held = std::make_shared<string>("held")] {
    observations[3].reset();
    heard.push_back(*held);
  });
  observed->didChangeValueForKey("c");
  EXPECT_EQ(heard.back(), "held");
  heard.clear();
  observed->didChangeValueForKey("a");
  EXPECT_EQ(heard, (std::vector<string>{"0a", "4a"}));
  EXPECT_EQ(observed, nullptr);
}

TEST(UTF8, IsToldFromOtherBytesAndComparedWithoutCase) {
  const std::pair<string_view, bool> rows[] = {{"", true},
                                               {"ascii", true},
                                               {"\xC3\xBC", true},
                                               {"\xF4\x8F\xBF\xBF", true},
                                               {"\x80", false},
                                               {"\xC3", false},
                                               {"\xC0\x80", false},
                                               {"\xED\xA0\x80", false},
                                               {"\xE2\x82x", false},
                                               {"\xFF", false},
                                               {"\xF4\x90\x80\x80", false},
                                               {"a long text with \xE4", false}};
  for (const auto& [bytes, isValid] : rows) EXPECT_EQ(isValidUTF8(bytes), isValid) << bytes;
  const struct {
    const char *a, *b;
    bool isEqual;
  } pairs[] = {{"Straße Ω", "STRASSE ω", true},
               {"a", "b", false},
               {"", "", true},
               {"a", "", false},
               {"\xFF", "\xFF", true},
               {"A\xFF", "a\xFF", false},
               {"a", "\xC1\x81", false},
               {"\xC1\x81", "a", false}};
  for (const auto& [a, b, isEqual] : pairs) EXPECT_EQ(equalCaseFolded(a, b), isEqual) << a << b;
}

TEST(NSError, TellsItsTextFromTheUserInfoOrFromDomainAndCode) {
  const auto plain = NSError::errorWithDomain_code_userInfo("D", 404, {});
  EXPECT_EQ(plain->localizedDescription(), "The operation could not be completed. (D error 404.)");
  EXPECT_EQ(plain->underlyingError(), nullptr);
  const auto told = NSError::errorWithDomain_code_userInfo(
      "D", 1, {{NSLocalizedDescriptionKey, "gone"}, {NSUnderlyingErrorKey, plain}});
  EXPECT_EQ(told->localizedDescription(), "gone");
  EXPECT_EQ(told->underlyingError(), plain);
  EXPECT_EQ(NSError::errorWithPOSIXCode(ENOSPC)->localizedDescription(), "No space left on device");
}

// A message catalogue with one text, as msgfmt writes it: header, a table each for the texts and
// their translations (length and offset), and the texts.
string messageCatalogue(const string& text, const string& translation) {
  const auto word = [](std::size_t number) {
    const auto value = static_cast<std::uint32_t>(number);
    return string(reinterpret_cast<const char*>(&value), sizeof value);
  };
  constexpr std::size_t header = 28;
  constexpr std::size_t table = 16;
  const string encoding = "Content-Type: text/plain; charset=UTF-8\n";
  const string strings[] = {"", text, encoding, translation};
  string tables, texts;
  for (const string& string : strings) {
    tables += word(string.size()) + word(header + 2 * table + texts.size());
    texts += string + '\0';
  }
  return word(0x950412de) + word(0) + word(2) + word(header) + word(header + table) + word(0) +
         word(0) + tables + texts;
}

TEST(KSLocalizedString, IsTheHostsTranslationOrTheEnglishText) {
  constexpr const char* english = "Unknown value \"%@\" for FREQ";
  EXPECT_EQ(KSLocalizedString(english, "daily"), "Unknown value \"daily\" for FREQ");
  EXPECT_EQ(KSLocalizedString("a %@ b %@", "x"), "a x b %@");
  EXPECT_EQ(KSLocalizedString("%@ %@", "%@", "x"), "%@ x") << "not what was filled in";
  EXPECT_EQ(KSLocalizedString("none", "x", "y"), "none");

  const testing::TemporaryFolder folder;
  std::filesystem::create_directories(folder / "de/LC_MESSAGES");
  testing::writeFile(folder / "de/LC_MESSAGES/Quillmere.mo",
                     messageCatalogue(english, "Unbekannter Wert für FREQ: %@"));
  ::bindtextdomain("Quillmere", (folder / "").c_str());
  ASSERT_TRUE(::setlocale(LC_ALL, "C.UTF-8"));
  ::setenv("LANGUAGE", "de", 1);
  const string translated = KSLocalizedString(english, "daily");
  ::unsetenv("LANGUAGE");
  ::setlocale(LC_ALL, "C");
  EXPECT_EQ(translated, "Unbekannter Wert für FREQ: daily");
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
