// XML documents, written and read: exact bytes, what counts as text, what is refused, and input
// that means harm.

#include <gtest/gtest.h>
#include <quillmere/platform/xml/HWXMLDocument.h>

#include <string>
#include <vector>

namespace quillmere {
namespace {

using std::string;
using std::string_view;
using namespace std::string_view_literals;

constexpr string_view declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

std::shared_ptr<HWXMLDocument> read(string bytes) {
  return HWXMLDocument::initWithData(NSData::dataWithString(std::move(bytes)));
}

// An element with all below it, as name(child child), where a text stands between apostrophes.
string outline(const HWXMLElement& element) {
  string text(element.name());
  const auto children = element.children();
  if (children.empty()) return text;
  char separator = '(';
  for (const HWXMLNode& child : children) {
    text += separator;
    separator = ' ';
    if (const auto* inner = std::get_if<HWXMLElement>(&child)) {
      text += outline(*inner);
    } else {
      text += '\'' + string(std::get<string_view>(child)) + '\'';
    }
  }
  return text + ')';
}

string outlineOf(string bytes) {
  const auto document = read(std::move(bytes));
  return document ? outline(document->rootElement()) : "refused";
}

// Every second byte 0, which is enough for ASCII.
string asUTF16(string_view ascii, bool isBigEndian) {
  string bytes = isBigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (const char character : ascii) {
    bytes += isBigEndian ? string{'\0', character} : string{character, '\0'};
  }
  return bytes;
}

string repeated(string_view piece, std::size_t count) {
  string text;
  text.reserve(piece.size() * count);
  while (count-- > 0) text += piece;
  return text;
}

TEST(HWXMLWriting, EscapesAndLeavesOutWhatCannotBeHeld) {
  const struct {
    string_view text;
    string_view asText;
    string_view asAttribute;
    string_view kept;
  } rows[] = {
      {"a<b>&\"'", "a&lt;b&gt;&amp;\"'", "a&lt;b&gt;&amp;&quot;'", "a<b>&\"'"},
      {"]]>", "]]&gt;", "]]&gt;", "]]>"},
      {"&lt;", "&amp;lt;", "&amp;lt;", "&lt;"},
      {"a\r\n\tb", "a&#13;\n\tb", "a&#13;&#10;&#9;b", "a\r\n\tb"},
      {"Bü\U0001F4C5ro", "Bü\U0001F4C5ro", "Bü\U0001F4C5ro", "Bü\U0001F4C5ro"},
      {{"a\0\x01\x1B\x7F\uFFFE\uFFFF\uFFFDz", 15}, "a\x7F\uFFFDz", "a\x7F\uFFFDz", "a\x7F\uFFFDz"},
      {"a\xFF\xC3z\xED\xA0\x80\xC0\x80", "az", "az", "az"},
  };
  for (const auto& row : rows) {
    const auto document = HWXMLDocument::initWithRootElementNamed("a");
    document->setAttribute_value("b", row.text);
    document->appendString(row.text);
    const NSData bytes = document->xmlData();
    EXPECT_EQ(bytes.view(), string(declaration) + "<a b=\"" + string(row.asAttribute) + "\">" +
                                string(row.asText) + "</a>");
    const auto again = HWXMLDocument::initWithData(bytes);
    ASSERT_TRUE(again) << row.asText;
    EXPECT_EQ(again->rootElement().text(), row.kept);
    EXPECT_EQ(again->rootElement().attributeNamed("b"), row.kept);
  }
}

TEST(HWXMLWriting, KeepsOneRootAndOneAttributeOfAName) {
  const auto document = HWXMLDocument::initWithRootElementNamed("a");
  document->pushElement("b");
  document->popElement();
  document->popElement();
  document->pushElement("c");
  document->popElement();
  document->appendString("\x02");
  document->setAttribute_value("x", "1");
  document->setAttribute_value("x", "2");
  EXPECT_EQ(document->xmlData().view(), string(declaration) + "<a x=\"2\"><b/><c/></a>");
}

TEST(HWXMLReading, TellsElementsAndTexts) {
  const struct {
    string_view bytes;
    string_view outline;
  } rows[] = {
      {"<D:a xmlns:D=\"DAV:\"><D:b/><c xmlns=\"C:\"/></D:a>", "a(b c)"},
      {"\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?>\n<!-- x --><?y z?>\n<a/>\n<!-- < -->\n",
       "a"},
      {"<!DOCTYPE a PUBLIC \"-//X//Y\" \"http://example.com/>.dtd\"><a>b</a>", "a('b')"},
      // White space alone is no text, even where it is not there for the eye.
      {"<a>\n  <b>\n    x y \n  </b>\n</a>", "a(b('\n    x y \n  '))"},
      {"<a> \r\n\t</a>", "a"},
      {"<a>&#32;<b/><![CDATA[ ]]></a>", "a(b)"},
      // One text, whatever divides it.
      {"<a> <!-- c -->y</a>", "a(' y')"},
      {"<a>x<?p q?>&lt;<![CDATA[<&amp;]]> <!----><![CDATA[]]&gt;]]>&gt;z<b/></a>",
       "a('x<<&amp; ]]&gt;>z' b)"},
      // Line ends as they were sent.
      {"<a>x\r\ny\rz\n&#13;&#xA;</a>", "a('x\r\ny\rz\n\r\n')"},
      // References.
      {"<a>&lt;&gt;&amp;&quot;&apos;&amp;lt;&#60;&#x3c;&#x3C;</a>", "a('<>&\"'&lt;<<<')"},
      {"<a>&#9;x&#xFC;&#x20AC;&#128197;&#0000000000000000000000000065;</a>",
       "a('\txü€\U0001F4C5A')"},
      {"<a>&#xD7FF;&#xE000;&#xFFFD;&#x10000;&#x10FFFF; </a>",
       "a('\xED\x9F\xBF\xEE\x80\x80\uFFFD\U00010000\U0010FFFF ')"},
      // Not well-formed, but nobody can take it for anything else.
      {"<a>]]><!-- -- --></a>", "a(']]>')"},
  };
  for (const auto& row : rows) EXPECT_EQ(outlineOf(string(row.bytes)), row.outline) << row.bytes;
  EXPECT_EQ(outlineOf(asUTF16("<?xml version='1.0'?><a>b<c/></a>", true)), "a('b' c)");
  EXPECT_EQ(outlineOf(asUTF16("<a>b<c/></a>", false)), "a('b' c)");
  EXPECT_EQ(outlineOf(string("\xFF\xFE<\0a\0>\0\x3D\xD8\xC5\xDC<\0/\0a\0>\0", 20)),
            "a('\U0001F4C5')");
}

TEST(HWXMLReading, RefusesWhatIsNotWellFormed) {
  const auto expectRefused = [](std::initializer_list<string_view> rows) {
    for (const string_view row : rows) EXPECT_EQ(outlineOf(string(row)), "refused") << row;
  };
  // Around the root.
  expectRefused({"", "<?xml version='1.0'?>", "x<a/>", "<a/>&#32;", "<a/><b/>", "<a/> <",
                 "<a/><![CDATA[ ]]>", " <?xml version='1.0'?><a/>", "<a><?xml version='1.0'?></a>",
                 "<a/>\0"sv, "<a/>\0<b/>"sv});
  // Tags.
  expectRefused({"<a>", "<a><b></a></b>", "<a b='1' c='2' d='3' b='4'/>", "<a b='<'/>"});
  // References.
  expectRefused({"<a>&</a>", "<a>&amp</a>", "<a>&LT;</a>", "<a>&#;</a>", "<a>&#x;</a>",
                 "<a>&#X41;</a>", "<a>&#-65;</a>", "<a>&#65x;</a>", "<a>&#27;</a>",
                 "<a>&#xD800;</a>", "<a>&#xDFFF;</a>", "<a>&#xFFFE;</a>", "<a>&#x110000;</a>",
                 "<a>&#4294967361;</a>", "<a>&<!-- -->lt;</a>", "<a b='&x;'/>"});
  // Characters.
  expectRefused({"<a>\x01</a>", "<a>\x1F</a>", "<a>\0</a>"sv, "<a><!-- \x1B --></a>",
                 "<a b='\x08'/>", "<a>\xED\xA0\x80</a>", "<a>\xC0\xBC</a>",
                 "<a>\xF4\x90\x80\x80</a>", "<a>\uFFFE</a>", "<a>\uFFFF</a>",
                 "<?xml version='1.0' encoding='iso-8859-1'?><a>\xFC</a>"});
  // Document types that define something, whatever it is.
  expectRefused({"<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>",
                 "<!DOCTYPE a [<!ATTLIST a b CDATA 'c'>]><a/>", "<!DOCTYPE a><!DOCTYPE a><a/>",
                 "<a/><!DOCTYPE a>", "<!DOCTYPE a"});
  // UTF-16: no mark, half a character, half a pair, four bytes for each.
  expectRefused({"<\0a\0/\0>\0"sv, "\xFF\xFE<\0a\0/\0>\0\n"sv,
                 "\xFF\xFE<\0a\0>\0\x3D\xD8<\0/\0a\0>\0"sv,
                 "\xFF\xFE\0\0<\0\0\0a\0\0\0/\0\0\0>\0\0\0"sv, "\xFE\xFF"});
}

TEST(HWXMLReading, LooksAtAllBytesWhereverTheyStand) {
  // Characters are checked in blocks: before, after and on the border between two.
  for (std::size_t before = 200; before != 600; ++before) {
    const string start = "<a>" + string(before, 'x');
    EXPECT_TRUE(read(start + "\U0001F4C5</a>")) << before;
    EXPECT_FALSE(read(start + "\xF0\x9F\x93</a>")) << before;
    EXPECT_FALSE(read(start + "\x9F</a>")) << before;
    EXPECT_FALSE(read(start + "\x01</a>")) << before;
    EXPECT_FALSE(read(start + "ü\x01</a>")) << before;
  }
}

TEST(HWXMLReading, LeadsToElementsAndTexts) {
  const auto document = read(
      "<D:multistatus xmlns:D='DAV:'>\n"
      "<D:response><D:href>/1</D:href><D:propstat><D:status>HTTP/1.1 404 Not Found</D:status>"
      "</D:propstat><D:propstat><D:prop><D:getetag>\"1\"</D:getetag></D:prop></D:propstat>"
      "</D:response>\n"
      "<response><href>/2</href><propstat><prop><x:getetag>\"2\"</x:getetag></prop></propstat>"
      "</response>between<D:comp name='&quot;V&#10;&#x9;\r\n\t' D:name='other' empty=''/>\n"
      "</D:multistatus>");
  ASSERT_TRUE(document);
  const HWXMLElement root = document->rootElement();
  EXPECT_EQ(root.name(), "multistatus");
  ASSERT_EQ(root.childrenCount(), 4U);
  EXPECT_EQ(root.text(), std::nullopt) << "the last child is an element";
  EXPECT_EQ(std::get<HWXMLElement>(*root.lastChild()).name(), "comp");
  EXPECT_EQ(std::get<string_view>(*root.childAtIndex(2)), "between");
  EXPECT_FALSE(root.childAtIndex(4));

  EXPECT_EQ(root.firstChildAtPath("response/href")->text(), "/1");
  EXPECT_FALSE(root.firstChildAtPath("response/propstat/prop/getetag"))
      << "the second propstat is not tried";
  const auto second = std::get<HWXMLElement>(*root.childAtIndex(1));
  EXPECT_EQ(second.firstChildAtPath("propstat/prop/getetag")->text(), "\"2\"");
  for (const char* name : {"getetag", "D:", "", "between"}) {
    EXPECT_FALSE(root.firstChildNamed(name)) << name;
  }
  for (const char* path : {"", "/", "response/", "/response", "response//href", "response/ref"}) {
    EXPECT_FALSE(root.firstChildAtPath(path)) << path;
  }

  const auto comp = root.firstChildNamed("comp");
  EXPECT_EQ(comp->attributeNamed("name"), "\"V\n\t  ") << "raw white space is blanks";
  EXPECT_EQ(comp->attributeNamed("D:name"), "other");
  EXPECT_EQ(comp->attributeNamed("empty"), "");
  EXPECT_EQ(comp->attributeNamed("ame"), std::nullopt);
  EXPECT_EQ(comp->textData(), std::nullopt);
  EXPECT_FALSE(comp->lastChild());
  EXPECT_EQ(comp->text(), std::nullopt);
}

TEST(HWXMLReading, KeepsTheDocumentWhileAnElementOrTextLives) {
  auto document = read("<a><p:q:b>" + string(1000, 'x') + "</p:q:b></a>");
  auto element = document->rootElement().firstChildNamed("b");
  document.reset();
  EXPECT_EQ(element->name(), "b");
  EXPECT_EQ(element->text(), string(1000, 'x'));
  const auto text = element->textData();
  element.reset();
  EXPECT_EQ(text->view(), string(1000, 'x'));
}

// Each in time that grows with its length and no faster; a square would outlast every time limit.
TEST(HWXMLReading, SurvivesHostileDocuments) {
  constexpr std::size_t million = 1'000'000;

  const auto wide = read("<a>" + repeated("<b/>x<!---->y", million) + "</a>");
  ASSERT_TRUE(wide);
  EXPECT_EQ(wide->rootElement().childrenCount(), 2 * million);
  EXPECT_EQ(wide->rootElement().children().size(), 2 * million);
  EXPECT_EQ(wide->rootElement().text(), "xy");
  EXPECT_FALSE(wide->rootElement().firstChildNamed("c"));

  const auto divided = read("<a>" + repeated("x<!---->", million) + "</a>");
  ASSERT_TRUE(divided);
  EXPECT_EQ(divided->rootElement().text(), string(million, 'x'));

  string attributes = "<a";
  for (std::size_t i = 0; i != million; ++i) attributes += " b" + std::to_string(i) + "='&lt;'";
  const auto attributed = read(attributes + "/>");
  ASSERT_TRUE(attributed);
  EXPECT_EQ(attributed->rootElement().attributeNamed("b999999"), "<");
  EXPECT_FALSE(read(attributes + " b5=''/>"));

  constexpr std::size_t depth = 100'000;
  const auto deep = read(repeated("<a>", depth) + "x" + repeated("</a>", depth));
  ASSERT_TRUE(deep);
  EXPECT_EQ(deep->xmlData().length(), declaration.size() + 7 * depth + 1);
  HWXMLElement innermost = deep->rootElement();
  while (const auto inner = innermost.firstChildNamed("a")) innermost = *inner;
  EXPECT_EQ(innermost.text(), "x");
  EXPECT_FALSE(read("<!DOCTYPE " + repeated("<![", million)));
  EXPECT_FALSE(read("<a>" + repeated("&lt;&#13;ü", million) + "&</a>"));
}

}  // namespace
}  // namespace quillmere
