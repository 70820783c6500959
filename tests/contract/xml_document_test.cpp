// The XML document: reading, searching and writing as platform/xml_base.h promises.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "platform/xml_base.h"

namespace {

using QNBase::CXmlBase;
using std::string_literals::operator""s;

// Walks from within the root <r>: "a" finds <a> from the origin on, "*a" from the first, ">"
// enters,
// "<" leaves, "+" goes to the next sibling, "=1" is the data. After "!" it must fail.
void walk(const std::string& document, const std::string& steps) {
  CXmlBase xml;
  ASSERT_TRUE(xml.Parse(document) && xml.FindElem("r") && xml.IntoElem()) << document;
  std::istringstream words(steps);
  for (std::string word; words >> word;) {
    const bool fails = word[0] == '!';
    const std::string step = word.substr(fails ? 1 : 0);
    const bool done = step == ">"      ? xml.IntoElem()
                      : step == "<"    ? xml.OutOfElem()
                      : step == "+"    ? xml.NextSibElem()
                      : step[0] == '=' ? xml.GetData() == step.substr(1)
                      : step[0] == '*' ? xml.FindElemNoOrder(step.c_str() + 1)
                                       : xml.FindElem(step.c_str());
    EXPECT_NE(done, fails) << word << " of " << steps;
  }
}

// What a reader gets for a text that was written.
std::string RoundTrip(const std::string& text) {
  CXmlBase writer;
  writer.CreateDeclaration("1.0", "UTF-8");
  writer.CreateRoot("r");
  writer.AddNode("t", text);
  writer.OutOfElem();
  CXmlBase reader;
  if (!reader.Parse(writer.GetChildren())) return "(unreadable) " + writer.GetChildren();
  reader.FindElem("r");
  reader.IntoElem();
  reader.FindElem("t");
  return reader.GetData();
}

std::string Nested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<n>";
  for (int i = 0; i < depth; ++i) text += "</n>";
  return text;
}

TEST(XmlParse, Accepts) {
  const std::vector<std::string> texts = {
      "<r/>",
      "<r></r >",
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?><r/>",
      " \r\n\t<?xml version=\"1.0\"?>\n<!-- a --><?style x?><r/>\n<!-- b -->\n",
      "\xEF\xBB\xBF \n<r a='1' b=\"&lt;&#65;\">&amp;&#x4f60;</r>",
      "<r><![CDATA[a & b &nope; <x>]]></r>",
      "<r><!-- & &nope; --></r>",
      Nested(256),
  };
  for (const std::string& text : texts) EXPECT_TRUE(CXmlBase().Parse(text)) << text;
}

TEST(XmlParse, RefusesAndLeavesAnEmptyDocument) {
  const std::vector<std::string> groups[] = {
      {"", " \r\n", "\xEF\xBB\xBF", "text", "{\"a\":1}", "<!-- only a comment -->",
       "<?xml version=\"1.0\"?>"},
      {"<", "<r", "<r>", "<r></s>", "<r><s></r></s>", "<r a=1/>", "<r a='<'/>", "<r a='1/>",
       "<r><![CDATA[x</r>", "<r><!-- x</r>", "</r>", "<r/></r>"},
      {"x<r/>", " \xEF\xBB\xBF<r/>", "<r/>x", "<r/><s/>", "<r/><?p x?>", "<r/><![CDATA[ ]]>",
       "<r/><", "<r/><?xml version=\"1.0\"?>", "<!-- a --><?xml version=\"1.0\"?><r/>"},
      {"<!DOCTYPE r><r/>", "<!DOCTYPE r [<!ENTITY a \"b\">]><r>&a;</r>", "<r><!DOCTYPE r></r>",
       "<r/><!DOCTYPE r>"},
      {"<r>a & b</r>", "<r>&nope;</r>", "<r><a/>&nope;</r>", "<r>&#0;</r>", "<r>&#xD800;</r>",
       "<r>&#x110000;</r>", "<r>&#99999999999999999999;</r>", "<r>&#-1;</r>", "<r>&#;</r>",
       "<r>&#x;</r>", "<r>&amp</r>", "<r a='&nope;'/>"},
      {"<r>\0</r>"s, "<r/>\0"s, "<r>\x01</r>", "<r>\xFF</r>", "<r>\xC0\xAF</r>",
       "<r>\xED\xA0\x80</r>", "<r>\xEF\xBF\xBF</r>"},
      {Nested(257), Nested(100000), std::string(1000000, '<')},
  };
  for (const auto& texts : groups) {
    for (const std::string& text : texts) {
      CXmlBase xml;
      ASSERT_TRUE(xml.Parse("<old/>") && xml.FindElem("old") && xml.IntoElem());
      EXPECT_FALSE(xml.Parse(text)) << text.substr(0, 80);
      EXPECT_EQ(xml.GetChildren(), "") << text.substr(0, 80);
      EXPECT_FALSE(xml.FindElem("old") || xml.OutOfElem());
    }
  }
  const std::string largest = "<r>" + std::string(1024 * 1024 - 7, 'x') + "</r>";
  EXPECT_TRUE(CXmlBase().Parse(largest));
  EXPECT_FALSE(CXmlBase().Parse(largest + " "));
}

TEST(XmlParse, DataIsDirectTextAndCdataDecodedNotTrimmed) {
  CXmlBase xml;
  ASSERT_TRUE(
      xml.Parse("<r>\n<a> x<b>inner</b>&lt;y<!-- c --><![CDATA[<&amp;> ]]>\r\nz </a><e/><w>  </w>"
                "<m> <b/> x <b/> </m>\n <c> <!-- c --> </c> <d> <![CDATA[ ]]> </d></r>"));
  ASSERT_TRUE(xml.FindElem("r") && xml.IntoElem());
  EXPECT_EQ(xml.GetData(), "") << "nothing is selected yet";
  const std::pair<const char*, const char*> cases[] = {
      {"a", " x<y<&amp;> \nz "}, {"e", ""}, {"w", "  "}, {"m", " x "}, {"c", ""}, {"d", " "}};
  for (const auto& [name, data] : cases) {
    EXPECT_TRUE(xml.FindElem(name));
    EXPECT_EQ(xml.GetData(), data) << name;
  }
}

TEST(XmlSearch, GoesWhereItShould) {
  const std::pair<const char*, const char*> cases[] = {
      // In order: forward, the same again, and where it fails nothing changes.
      {"<r>t<a>1</a><!-- c --><b>2</b><a>3</a></r>", "a a =1 b !absent =2 a =3 !b"},
      // Without order: from the first, and the origin stays.
      {"<r><a>1</a><b>2</b><a>3</a><c>4</c></r>", "b *a =1 !*absent =1 a =3"},
      // Siblings are elements, and the origin moves along.
      {"<r><a/>text<!-- c --><b/><![CDATA[x]]></r>", "!+ a + !+ b !a"},
      // The element that is left is the origin; the document cannot be left.
      {"<r><a><x>1</x></a><empty/><x>2</x></r>", "!> empty > !x !+ < !a x =2 < !< r"},
  };
  for (const auto& [document, steps] : cases) walk(document, steps);
}

TEST(XmlWrite, CompactDocument) {
  CXmlBase xml;
  xml.CreateDeclaration("1.0", "UTF-8");
  xml.CreateRoot("Root");
  xml.SetAttribute("version", "1.0");
  xml.SetAttribute("version", "2.0");
  xml.AddNode("id", "1");
  xml.OutOfElem();
  xml.AddNode("list");
  xml.AddNode("item", "a<b>&\"c'");
  xml.SetAttribute("opt", "x\"<&\n\x01");
  xml.OutOfElem();
  xml.AddNode("item", "");
  xml.OutOfElem();
  xml.OutOfElem();
  xml.AddNode("empty");
  xml.OutOfElem();
  const std::string expected =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Root version=\"2.0\"><id>1</id><list>"
      "<item opt=\"x&quot;&lt;&amp;&#10;\">a&lt;b&gt;&amp;\"c'</item><item/></list><empty/></Root>";
  EXPECT_EQ(xml.GetChildren(), expected);

  CXmlBase declared;
  declared.CreateDeclaration("1.0", "UTF-8");
  declared.SetAttribute("lost", "the document has no attributes");
  EXPECT_EQ(declared.GetChildren(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
}

TEST(XmlWrite, ParsedDocumentIsWrittenBack) {
  const std::string text =
      "<?xml version=\"1.0\"?><r a=\"&lt;\"> t<b>&amp;x</b>&gt; <![CDATA[<]]><!-- c --></r>";
  CXmlBase xml;
  ASSERT_TRUE(xml.Parse(text));
  EXPECT_EQ(xml.GetChildren(), text);
  ASSERT_TRUE(xml.Parse("<r a='\"&quot;&apos;&#10;>'/>"));
  EXPECT_EQ(xml.GetChildren(), "<r a=\"&quot;&quot;'&#10;&gt;\"/>");
}

TEST(XmlWrite, TextIsMadeFit) {
  const std::string mark = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "plain"},
      {" blanks \t\n ", " blanks \t\n "},
      {"line\r\nend\r", "line\r\nend\r"},
      {"<a> & \"b\" 'c' ]]> &amp;", "<a> & \"b\" 'c' ]]> &amp;"},
      {"Türkçe 你好 \xF0\x9F\x93\xB7", "Türkçe 你好 \xF0\x9F\x93\xB7"},
      {"nul\0end"s, "nulend"},
      {"\x01\x02long enough for a whole word\x1F\x0B", "long enough for a whole word"},
      {"bad\xFF!", "bad" + mark + "!"},
      {"lone \x80\xBF", "lone " + mark + mark},
      {"cut \xE4\xBD", "cut " + mark},
      {"cut \xE4\xBDx", "cut " + mark + "x"},
      {"overlong \xC0\xAF", "overlong " + mark + mark},
      {"overlong \xE0\x80\xAF", "overlong " + mark + mark + mark},
      {"surrogate \xED\xA0\x80", "surrogate " + mark + mark + mark},
      {"too large \xF4\x90\x80\x80", "too large " + mark + mark + mark + mark},
      {"noncharacter \xEF\xBF\xBF\xEF\xBF\xBE", "noncharacter "},
      {"\0"s, ""},
  };
  for (const auto& [written, read] : cases) EXPECT_EQ(RoundTrip(written), read) << written;
}

TEST(XmlWrite, BufferTakesAtMostItsCapacity) {
  CXmlBase xml;
  xml.CreateRoot("r");
  xml.AddNode("t", std::string(5000, 'x'));
  xml.OutOfElem();
  const std::string whole = xml.GetChildren();
  const int size = static_cast<int>(whole.size());
  for (int capacity : {-1, 0, 1, 2047, 2048, 2049, size - 1, size, size + 1, size + 100}) {
    std::string buffer(static_cast<std::size_t>(size) + 101, '#');
    int length = -1;
    EXPECT_EQ(xml.WriteToBuf(buffer.data(), capacity, length), capacity >= size) << capacity;
    EXPECT_EQ(length, std::clamp(capacity, 0, size));
    const auto written = static_cast<std::size_t>(length);
    EXPECT_EQ(buffer.substr(0, written), whole.substr(0, written));
    EXPECT_EQ(buffer.find_first_not_of('#', written), buffer.npos) << "overrun at " << capacity;
  }
}

}  // namespace
