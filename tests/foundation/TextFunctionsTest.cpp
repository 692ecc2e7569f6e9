// Escaping, white-space folding, splitting, matching and message formatting.
#include <veskan/StringBuffer.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace Veskan {
namespace {

struct TextCase {
  const char16_t* input;
  const char16_t* expected;
};

TEST(NormalizeWhitespaceTest, FoldsRunsAndTrimsBothEnds) {
  const TextCase cases[] = {
      {u"  a \t\r\n b  ", u"a b"}, {u"a\u00A0\u00A0b", u"a b"},
      {u"\u00A0lead", u"lead"},    {u"one  two   three", u"one two three"},
      {u" \t\r\n", u""},           {u"", u""},
      {u"a\u2003b", u"a\u2003b"},  // only the five folded units count as white space
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(StringBuffer(c.input));
    EXPECT_EQ(NormalizeWhitespace(c.input), c.expected);
  }
  EXPECT_TRUE(NormalizeWhitespace(nullptr).isEmpty());
}

TEST(SafeForXmlTest, EscapesMarkupAndEverythingOutsidePrintableAscii) {
  const TextCase cases[] = {
      {u"<", u"&lt;"},
      {u"a>b&c'd\"e", u"a&gt;b&amp;c&apos;d&quot;e"},
      {u"\t", u"&#x0009;"},
      {u"\r\n", u"&#x000D;&#x000A;"},
      {u"\u00E9", u"&#x00E9;"},
      {u"\U0001F600", u"&#xD83D;&#xDE00;"},
      {u"\u007F~", u"&#x007F;~"},
      {u"plain text 123", u"plain text 123"},
      {u"", u""},
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(StringBuffer(c.input));
    EXPECT_EQ(SafeForXml(c.input), c.expected);
    EXPECT_EQ(SafeForXml(StringBuffer(c.input)), c.expected);
  }
  EXPECT_TRUE(SafeForXml(static_cast<const char16_t*>(nullptr)).isEmpty());
}

// Long texts go through the block scan: an escape at every position of three blocks, each
// character class, through both overloads.
TEST(SafeForXmlTest, EscapesAtEveryPositionOfLongTexts) {
  const std::pair<char16_t, std::u16string> specials[] = {
      {u'<', u"&lt;"},       {u'&', u"&amp;"},      {u'"', u"&quot;"},    {u'\'', u"&apos;"},
      {u'>', u"&gt;"},       {u'\n', u"&#x000A;"},  {0x7F, u"&#x007F;"},  {0x00E9, u"&#x00E9;"},
      {0xFFFF, u"&#xFFFF;"}, {0x8000, u"&#x8000;"}, {0x0126, u"&#x0126;"}};
  for (const auto& [special, escaped] : specials) {
    for (std::size_t at = 0; at < 96; ++at) {
      std::u16string text(96, u'a');
      text[at] = special;
      text[95 - at] = u'=';  // a neighbour of '<' and '>' that stays
      std::u16string expected = text;
      expected.replace(at, 1, escaped);
      SCOPED_TRACE(testing::Message() << "unit " << int(special) << " at " << at);
      ASSERT_EQ(SafeForXml(text.c_str()), expected.c_str());
      ASSERT_EQ(SafeForXml(StringBuffer(text.c_str())), expected.c_str());
    }
  }
  const std::u16string clean(100, u'~');
  EXPECT_EQ(SafeForXml(clean.c_str()), clean.c_str());
}

TEST(DoubleBracesForXQueryTest, DoublesSingleBracesAndKeepsPairs) {
  const TextCase cases[] = {
      {u"{", u"{{"},          {u"{{", u"{{"},       {u"{{{", u"{{{{"},  {u"}{", u"}}{{"},
      {u"a{b}c", u"a{{b}}c"}, {u"{{x}}", u"{{x}}"}, {u"none", u"none"}, {u"", u""},
  };
  for (const TextCase& c : cases) {
    SCOPED_TRACE(StringBuffer(c.input));
    EXPECT_EQ(DoubleBracesForXQuery(c.input), c.expected);
  }
}

TEST(TokenizeTest, AppendsTokensIncludingEmptyOnes) {
  StringList list;
  list.Add(u"existing");
  EXPECT_EQ(Tokenize(u"a,,b,", list, u","), 3);
  ASSERT_EQ(list.Count(), 4);
  EXPECT_EQ(StringBuffer(list[0]), u"existing");
  EXPECT_EQ(StringBuffer(list[1]), u"a");
  EXPECT_EQ(StringBuffer(list[2]), u"");
  EXPECT_EQ(StringBuffer(list[3]), u"b");
}

TEST(TokenizeTest, AnyDelimiterSplitsAndEdgesBehave) {
  StringList list;
  EXPECT_EQ(Tokenize(u";x y;z", list, u" ;"), 4);
  EXPECT_EQ(StringBuffer(list[0]), u"");
  EXPECT_EQ(StringBuffer(list[3]), u"z");
  EXPECT_EQ(Tokenize(u"", list, u","), 0);
  EXPECT_EQ(Tokenize(nullptr, list, u","), 0);
  EXPECT_EQ(Tokenize(u"whole", list, nullptr), 1);
  EXPECT_EQ(StringBuffer(list[4]), u"whole");
  EXPECT_EQ(list.Count(), 5);
}

TEST(RegexTest, MatchesTheWholeTextOnly) {
  EXPECT_TRUE(Regex(u"abc123", u"[a-z]+\\d+"));
  EXPECT_FALSE(Regex(u"abc123!", u"[a-z]+\\d+"));
  EXPECT_TRUE(Regex(u"\u00E9t\u00E9", u"\\p{L}+"));
  EXPECT_FALSE(Regex(u"abc", u"(unclosed"));
  EXPECT_TRUE(Regex(nullptr, u""));
}

TEST(MessageFormatTest, FillsArgumentsInOrder) {
  EXPECT_EQ(MessageFormat(u"{0}: CreateFile failed: error {1}: {2}",
                          {icu::Formattable(StringBuffer(u"/tmp/x")), icu::Formattable(2),
                           icu::Formattable(StringBuffer(u"No such file"))}),
            u"/tmp/x: CreateFile failed: error 2: No such file");
  const icu::Formattable args[] = {icu::Formattable(7)};
  EXPECT_EQ(MessageFormat(u"line = {0,number}", args, 1), u"line = 7");
  EXPECT_EQ(MessageFormat(u"no arguments", nullptr, 0), u"no arguments");
}

TEST(MessageFormatTest, FailureReadsAsEmpty) {
  const StringBuffer broken = MessageFormat(u"{0", {icu::Formattable(1)});
  EXPECT_TRUE(broken.isBogus());
  EXPECT_TRUE(broken.isEmpty());
  EXPECT_EQ(broken.c_str()[0], 0);
  EXPECT_TRUE(MessageFormat(u"{0}", nullptr, 1).isEmpty());
}

}  // namespace
}  // namespace Veskan
