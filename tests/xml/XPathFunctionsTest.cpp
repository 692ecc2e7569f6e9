// The XPath engine's values and conversions, and its function library called directly.
#include "xml/xpath/XPathEvaluator.h"

#include <veskan/Globals.h>
#include <veskan/XmlSchema.h>

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNodeList.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Veskan {
namespace Detail {
namespace XPath {
namespace {

const Globals globals;

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double Inf = std::numeric_limits<double>::infinity();

std::string Ascii(std::u16string_view text) {
  std::string out;
  for (const char16_t c : text)
    out += c < 0x80 ? static_cast<char>(c) : '?';
  return out;
}

Sequence S(std::u16string text) {
  return {Item::OfString(std::move(text))};
}
Sequence N(double value) {
  return {Item::OfNumber(value)};
}
Sequence B(bool value) {
  return {Item::OfBoolean(value)};
}
Sequence Strings(const std::vector<std::u16string>& texts) {
  Sequence out;
  for (const auto& text : texts)
    out.push_back(Item::OfString(text));
  return out;
}
Sequence Numbers(const std::vector<double>& values) {
  Sequence out;
  for (const double value : values)
    out.push_back(Item::OfNumber(value));
  return out;
}

// Calls a library function with `context` (null: none) as context item.
Sequence Call(std::u16string_view name, std::vector<Sequence> arguments,
              xercesc::DOMNode* context = nullptr, std::size_t position = 1, std::size_t size = 1) {
  const FunctionDefinition* function = FindFunction(FunctionsNamespace, name);
  if (!function) {
    ADD_FAILURE() << "no function " << Ascii(name);
    return {};
  }
  DocumentOrder order;
  const Item item = Item::OfNode(context);
  FunctionContext focus(context ? &item : nullptr, position, size, order);
  return function->body(focus, arguments);
}

// The single result as a string, or "<n items>" when there is not exactly one.
std::u16string Str(std::u16string_view name, std::vector<Sequence> arguments,
                   xercesc::DOMNode* context = nullptr) {
  const Sequence result = Call(name, std::move(arguments), context);
  if (result.size() != 1) return u"<" + NumberToString(static_cast<double>(result.size())) + u">";
  return ToString(result.front());
}

double Num(std::u16string_view name, std::vector<Sequence> arguments) {
  const Sequence result = Call(name, std::move(arguments));
  EXPECT_EQ(result.size(), 1u) << Ascii(name);
  return result.size() == 1 && result[0].type == ItemType::Number ? result[0].number : -12345;
}

// All items as their strings, joined with '|'.
std::u16string Joined(const Sequence& items) {
  std::u16string out;
  for (std::size_t i = 0; i < items.size(); ++i)
    out += (i ? u"|" : u"") + ToString(items[i]);
  return out;
}

// The code of the XPathError the call throws, or nothing; `text` receives its message.
std::optional<int> ErrorOf(std::u16string_view name, std::vector<Sequence> arguments,
                           std::u16string* text = nullptr) {
  try {
    Call(name, std::move(arguments));
  } catch (const XPathError& error) {
    if (text) *text = error.getMessage();
    return error.code;
  }
  return std::nullopt;
}

bool SameNumber(double a, double b) {
  return (std::isnan(a) && std::isnan(b)) || (a == b && std::signbit(a) == std::signbit(b));
}

TEST(XPathValueTest, NumbersToStrings) {
  const std::vector<std::pair<double, std::u16string>> cases{
      {NaN, u"NaN"},
      {Inf, u"Infinity"},
      {-Inf, u"-Infinity"},
      {0.0, u"0"},
      {-0.0, u"0"},
      {-42, u"-42"},
      {-2.5, u"-2.5"},
      {0.1 + 0.2, u"0.30000000000000004"},
      {1e21, u"1000000000000000000000"},
      {1.5e-7, u"0.00000015"},
      {0.000001, u"0.000001"},
      {123456789012345680000.0, u"123456789012345680000"},
      {1e300, u"1" + std::u16string(300, u'0')},
      {5e-324, u"0." + std::u16string(323, u'0') + u"5"}};
  for (const auto& [value, text] : cases)
    EXPECT_EQ(NumberToString(value), text) << value;
}

TEST(XPathValueTest, StringsToNumbers) {
  const std::vector<std::pair<std::u16string, double>> cases{
      {u"12", 12},        {u"  -3.25\t\r\n", -3.25},
      {u".5", 0.5},       {u"7.", 7},
      {u"-0", -0.0},      {u"007", 7},
      {u"", NaN},         {u"  ", NaN},
      {u"-", NaN},        {u".", NaN},
      {u"+1", NaN},       {u"1e3", NaN},
      {u"Infinity", NaN}, {u"NaN", NaN},
      {u"1 2", NaN},      {u"- 1", NaN},
      {u"1.2.3", NaN},    {u"0x10", NaN},
      {u"\u00a01", NaN},  {u"0.1", 0.1},
      {u"１", NaN},  // only ASCII digits count
  };
  for (const auto& [text, value] : cases) {
    EXPECT_TRUE(SameNumber(StringToNumber(text), value)) << Ascii(text);
  }
  // Thousands of digits neither crash nor lose the magnitude.
  EXPECT_EQ(StringToNumber(std::u16string(5000, u'9')), Inf);
  EXPECT_EQ(StringToNumber(u"-" + std::u16string(400, u'1')), -Inf);
  EXPECT_EQ(StringToNumber(u"1" + std::u16string(300, u'0')), 1e300);
  EXPECT_EQ(StringToNumber(u"0." + std::u16string(4000, u'0') + u"1"), 0.0);
  EXPECT_DOUBLE_EQ(StringToNumber(u"0." + std::u16string(3000, u'3')), 1.0 / 3);
  // Every double formats to a string that reads back as itself.
  for (const double value : {0.1 + 0.2, 1e21, 1.5e-7, -123.456, 5e-324, 1.7976931348623157e308}) {
    EXPECT_EQ(StringToNumber(NumberToString(value)), value) << value;
  }
}

TEST(XPathValueTest, ItemConversionsAndEffectiveBoolean) {
  const auto doc = XmlSchema::NewDoc(u"<a><b>4</b><c/></a>");
  xercesc::DOMNode* a = doc->DocumentNode()->getDocumentElement();
  const Item node = Item::OfNode(a);
  const Item empty = Item::OfNode(a->getLastChild());
  EXPECT_EQ(ToString(node), u"4");
  EXPECT_EQ(ToNumber(node), 4);
  EXPECT_TRUE(ToBoolean(empty));  // a node is true whatever its string
  EXPECT_TRUE(std::isnan(ToNumber(empty)));

  EXPECT_EQ(ToString(Item::OfBoolean(true)), u"true");
  EXPECT_EQ(ToString(Item::OfNumber(0.5)), u"0.5");
  EXPECT_FALSE(ToBoolean(Item::OfNumber(NaN)));
  EXPECT_FALSE(ToBoolean(Item::OfNumber(-0.0)));
  EXPECT_TRUE(ToBoolean(Item::OfNumber(-0.1)));
  EXPECT_FALSE(ToBoolean(Item::OfString(u"")));
  EXPECT_TRUE(ToBoolean(Item::OfString(u"false")));
  EXPECT_EQ(ToString(Sequence{}), u"");
  EXPECT_TRUE(std::isnan(ToNumber(Sequence{})));
  EXPECT_EQ(ToNumber(Strings({u"2", u"x"})), 2);

  EXPECT_FALSE(EffectiveBoolean({}));
  EXPECT_TRUE(EffectiveBoolean({node, Item::OfNumber(0)}));
  EXPECT_FALSE(EffectiveBoolean(N(0)));
  EXPECT_TRUE(EffectiveBoolean(S(u"0")));
  try {
    EffectiveBoolean(Numbers({1, 2}));
    ADD_FAILURE() << "no error";
  } catch (const XPathError& error) {
    EXPECT_EQ(error.code, xercesc::DOMXPathException::TYPE_ERR);
  }
}

TEST(XPathValueTest, StringValuesOfNodes) {
  const auto doc = XmlSchema::NewDoc(
      u"<a x='at&amp;t'>one<b>two<![CDATA[<three>]]><!--no--><?pi data?></b><c/>four</a>");
  xercesc::DOMElement* a = doc->DocumentNode()->getDocumentElement();
  xercesc::DOMNode* b = a->getFirstChild()->getNextSibling();
  EXPECT_EQ(StringValue(a), u"onetwo<three>four");
  EXPECT_EQ(StringValue(doc->DocumentNode()), u"onetwo<three>four");
  EXPECT_EQ(StringValue(b), u"two<three>");
  EXPECT_EQ(StringValue(a->getAttributeNode(u"x")), u"at&t");
  EXPECT_EQ(StringValue(b->getChildNodes()->item(2)), u"no");
  EXPECT_EQ(StringValue(b->getLastChild()), u"data");
  EXPECT_EQ(StringValue(a->getLastChild()->getPreviousSibling()), u"");
  std::u16string out = u">";
  AppendStringValue(b, out);
  EXPECT_EQ(out, u">two<three>");

  // Far deeper than any stack would allow for a recursive walk.
  xercesc::DOMDocument* document = doc->DocumentNode();
  xercesc::DOMNode* deepest = a->getLastChild()->getPreviousSibling();
  for (int i = 0; i < 200000; ++i)
    deepest = deepest->appendChild(document->createElement(u"d"));
  deepest->appendChild(document->createTextNode(u"!"));
  EXPECT_EQ(StringValue(a), u"onetwo<three>!four");
}

TEST(XPathValueTest, ErrorsOwnTheirMessages) {
  std::optional<XPathError> copy;
  {
    std::u16string text = u"first message";
    const XPathError original(xercesc::DOMXPathException::INVALID_EXPRESSION_ERR, text);
    text[0] = u'F';
    EXPECT_EQ(std::u16string(original.getMessage()), u"first message");
    copy.emplace(original);
    EXPECT_NE(copy->getMessage(), original.getMessage());
  }
  EXPECT_EQ(copy->code, 51);
  EXPECT_EQ(std::u16string(copy->msg), u"first message");
  try {
    ThrowTypeError(u"XPTY0004", MessageText("caf\xC3\xA9 \xF0\x9D\x84\x9E"));
  } catch (const xercesc::DOMXPathException& error) {
    EXPECT_EQ(error.code, 52);
    EXPECT_EQ(std::u16string(error.getMessage()), u"XPTY0004: café 𝄞");
  }
}

TEST(XPathFunctionsTest, LookupIsByNamespaceAndName) {
  EXPECT_EQ(FindFunction(u"urn:other", u"concat"), nullptr);
  EXPECT_EQ(FindFunction(FunctionsNamespace, u"no-such-function"), nullptr);
  EXPECT_EQ(FindFunction(FunctionsNamespace, u""), nullptr);
  const FunctionDefinition* concat = FindFunction(FunctionsNamespace, u"concat");
  ASSERT_NE(concat, nullptr);
  EXPECT_EQ(concat->minArguments, 2);
  EXPECT_EQ(concat->maxArguments, -1);
  for (const char16_t* name : {u"abs", u"zero-or-one", u"substring-after", u"substring", u"string",
                               u"string-length", u"id", u"round-half-to-even"}) {
    const FunctionDefinition* found = FindFunction(FunctionsNamespace, name);
    ASSERT_NE(found, nullptr) << Ascii(name);
    EXPECT_EQ(found->localName, name);
  }
}

TEST(XPathFunctionsTest, Strings) {
  struct Case {
    const char16_t* function;
    std::vector<Sequence> arguments;
    std::u16string expected;
  };
  const std::vector<Case> cases{
      {u"substring", {S(u"12345"), N(1.5), N(2.6)}, u"234"},
      {u"substring", {S(u"12345"), N(0), N(3)}, u"12"},
      {u"substring", {S(u"12345"), N(NaN), N(3)}, u""},
      {u"substring", {S(u"12345"), N(1), N(NaN)}, u""},
      {u"substring", {S(u"12345"), N(-42), N(Inf)}, u"12345"},
      {u"substring", {S(u"12345"), N(-Inf), N(Inf)}, u""},
      {u"substring", {S(u"12345"), N(2)}, u"2345"},
      {u"substring", {S(u"a𝄞b"), N(2), N(1)}, u"𝄞"},
      {u"string-length", {S(u"a𝄞b")}, u"3"},
      {u"translate", {S(u"bar"), S(u"abc"), S(u"ABC")}, u"BAr"},
      {u"translate", {S(u"--aaa--"), S(u"abc-"), S(u"ABC")}, u"AAA"},
      {u"translate", {S(u"abab"), S(u"aa"), S(u"xy")}, u"xbxb"},
      {u"translate", {S(u"a𝄞c"), S(u"𝄞c"), S(u"b𝄢")}, u"ab𝄢"},
      {u"normalize-space", {S(u"\t a  b \r\n c \n")}, u"a b c"},
      {u"normalize-space", {S(u"   ")}, u""},
      {u"concat", {S(u"a"), N(1), B(true), {}}, u"a1true"},
      {u"substring-before", {S(u"1999/04/01"), S(u"/")}, u"1999"},
      {u"substring-before", {S(u"abc"), S(u"")}, u""},
      {u"substring-after", {S(u"1999/04/01"), S(u"/")}, u"04/01"},
      {u"substring-after", {S(u"abc"), S(u"")}, u"abc"},
      {u"starts-with", {S(u"abc"), S(u"ab")}, u"true"},
      {u"starts-with", {S(u"a"), S(u"ab")}, u"false"},
      {u"ends-with", {S(u"abc"), S(u"bc")}, u"true"},
      {u"ends-with", {S(u"c"), S(u"bc")}, u"false"},
      {u"contains", {S(u"abc"), S(u"")}, u"true"},
      {u"contains", {{}, S(u"a")}, u"false"},
      {u"upper-case", {S(u"straße")}, u"STRASSE"},
      {u"lower-case", {S(u"ÀB")}, u"àb"},
      {u"compare", {S(u"a"), S(u"b")}, u"-1"},
      {u"compare", {S(u"b"), S(u"b")}, u"0"},
      {u"compare", {S(u"𝄞"), S(u"\uFFFD")}, u"1"},  // code points, not UTF-16 units
      {u"compare", {{}, S(u"b")}, u"<0>"},
      {u"string-join", {Strings({u"a", u"b", u"c"}), S(u", ")}, u"a, b, c"},
      {u"string-join", {Numbers({1, 2.5}), S(u"")}, u"12.5"},
      {u"codepoints-to-string", {Numbers({0x61, 0x1D11E})}, u"a𝄞"},
      {u"normalize-unicode", {S(u"e\u0301")}, u"\u00e9"},
      {u"normalize-unicode", {S(u"\u00e9"), S(u" nfd ")}, u"e\u0301"},
      {u"normalize-unicode", {S(u"\uFB01"), S(u"NFKC")}, u"fi"},
      {u"normalize-unicode", {S(u"e\u0301"), S(u"")}, u"e\u0301"},
      {u"encode-for-uri", {S(u"a b/é~𝄞")}, u"a%20b%2F%C3%A9~%F0%9D%84%9E"},
      {u"boolean", {S(u"")}, u"false"},
      {u"not", {N(NaN)}, u"true"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(Ascii(c.function));
    EXPECT_EQ(Str(c.function, c.arguments), c.expected);
  }
  EXPECT_EQ(Joined(Call(u"string-to-codepoints", {S(u"a𝄞")})), u"97|119070");
  EXPECT_TRUE(Call(u"string-to-codepoints", {S(u"")}).empty());
  EXPECT_EQ(ErrorOf(u"normalize-unicode", {S(u"x"), S(u"NFX")}), 51);
  EXPECT_EQ(ErrorOf(u"codepoints-to-string", {N(0xD800)}), 51);
  std::u16string message;
  EXPECT_EQ(ErrorOf(u"error", {S(u"err:XYZ0001"), S(u"went wrong")}, &message), 51);
  EXPECT_EQ(message, u"XYZ0001: went wrong");
  EXPECT_EQ(ErrorOf(u"error", {}, &message), 51);
  EXPECT_EQ(message, u"FOER0000: error() was called.");
}

TEST(XPathFunctionsTest, Numbers) {
  const std::vector<std::pair<double, double>> rounding{
      {2.5, 3},     {-2.5, -2},    {-0.5, -0.0}, {-0.2, -0.0}, {0.2, 0},
      {-0.0, -0.0}, {NaN, NaN},    {-Inf, -Inf}, {1.5, 2},     {0.49999999999999994, 0},
      {-1.5, -1},   {1e300, 1e300}};
  for (const auto& [value, rounded] : rounding) {
    EXPECT_TRUE(SameNumber(Num(u"round", {N(value)}), rounded)) << value;
  }
  EXPECT_EQ(Num(u"floor", {N(-1.5)}), -2);
  EXPECT_EQ(Num(u"ceiling", {S(u" 1.2 ")}), 2);
  EXPECT_TRUE(std::isnan(Num(u"floor", {{}})));
  EXPECT_EQ(Num(u"abs", {N(-3)}), 3);
  EXPECT_TRUE(std::isnan(Num(u"number", {S(u"1e2")})));
  EXPECT_EQ(Num(u"number", {B(true)}), 1);

  const std::vector<std::tuple<double, double, double>> halfEven{
      {2.5, 0, 2},      {3.5, 0, 4},        {-2.5, 0, -2}, {2.345, 2, 2.34},
      {2.355, 2, 2.36}, {12450, -2, 12400}, {0.5, 0, 0},   {9.96, 1, 10},
      {1.25, 5, 1.25},  {0.04, 1, 0},       {0.05, 1, 0},  {0.051, 1, 0.1}};
  for (const auto& [value, precision, expected] : halfEven) {
    EXPECT_EQ(Num(u"round-half-to-even", {N(value), N(precision)}), expected)
        << value << " " << precision;
  }
  EXPECT_EQ(Num(u"round-half-to-even", {N(4.5)}), 4);
  // Rounding the largest doubles up leaves their range: infinity, not the reader's untouched 0.
  const double largest = std::numeric_limits<double>::max();
  EXPECT_EQ(Num(u"round-half-to-even", {N(largest), N(-308)}), Inf);
  EXPECT_EQ(Num(u"round-half-to-even", {N(-largest), N(-308)}), -Inf);
  EXPECT_EQ(Num(u"round-half-to-even", {N(1.5e308), N(-308)}), Inf);
  EXPECT_EQ(Num(u"round-half-to-even", {N(1.2e308), N(-308)}), 1e308);

  EXPECT_EQ(Num(u"sum", {{}}), 0);
  EXPECT_EQ(Num(u"sum", {{Item::OfNumber(1), Item::OfString(u"2.5"), Item::OfBoolean(true)}}), 4.5);
  EXPECT_TRUE(std::isnan(Num(u"sum", {Strings({u"1", u"x"})})));
  for (const char16_t* function : {u"min", u"max", u"avg"}) {
    EXPECT_TRUE(Call(function, {{}}).empty()) << Ascii(function);
  }
  EXPECT_EQ(Num(u"max", {{Item::OfNumber(3), Item::OfString(u"10"), Item::OfNumber(-1)}}), 10);
  EXPECT_EQ(Num(u"min", {{Item::OfNumber(3), Item::OfString(u"10"), Item::OfNumber(-1)}}), -1);
  EXPECT_TRUE(std::isnan(Num(u"max", {Numbers({1, NaN, 2})})));
  EXPECT_EQ(Num(u"avg", {{Item::OfNumber(1), Item::OfString(u"2"), Item::OfNumber(6)}}), 3);
  // Strings that are no numbers compare as strings, numerically looking ones too.
  EXPECT_EQ(Str(u"max", {Strings({u"pear", u"apple", u"10", u"9"})}), u"pear");
  EXPECT_EQ(Str(u"min", {Strings({u"pear", u"apple", u"10", u"9"})}), u"10");
}

// Text beyond the range of doubles casts to infinity or zero as its magnitude says, never to the
// number reader's untouched starting value.
TEST(XPathFunctionsTest, SchemaCastsOutOfRange) {
  auto cast = [](std::u16string_view type, std::u16string_view text) {
    const FunctionDefinition* function = FindFunction(u"http://www.w3.org/2001/XMLSchema", type);
    EXPECT_NE(function, nullptr) << Ascii(type);
    DocumentOrder order;
    FunctionContext focus(nullptr, 1, 1, order);
    std::vector<Sequence> arguments{S(std::u16string(text))};
    const Sequence result = function->body(focus, arguments);
    EXPECT_EQ(result.size(), 1U) << Ascii(text);
    return result.empty() ? NaN : ToNumber(result.front());
  };
  EXPECT_EQ(cast(u"double", u"1e400"), Inf);
  EXPECT_EQ(cast(u"double", u"-1e400"), -Inf);
  EXPECT_EQ(cast(u"double", u"+0.0001e309"), 1e305);
  EXPECT_TRUE(SameNumber(cast(u"double", u"-1e-400"), -0.0));
  EXPECT_EQ(cast(u"double", u"0.00000000000000000001e-400"), 0);
  EXPECT_EQ(cast(u"double", u"1e99999999999999999999999"), Inf);
  EXPECT_EQ(cast(u"double", u"1e-99999999999999999999999"), 0);
  EXPECT_EQ(cast(u"double", u"5e-324"), 5e-324);
  const std::u16string huge = u"1" + std::u16string(400, u'0');
  EXPECT_EQ(cast(u"double", huge), Inf);
  // A decimal or an integer has no infinity: too large a one does not cast.
  for (const char16_t* type : {u"decimal", u"integer"}) {
    EXPECT_THROW(cast(type, huge), XPathError) << Ascii(type);
  }
  EXPECT_THROW(cast(u"double", u"+-1"), XPathError);
  EXPECT_EQ(cast(u"double", u"+1"), 1);
}

TEST(XPathFunctionsTest, RegularExpressions) {
  EXPECT_EQ(Str(u"matches", {S(u"abracadabra"), S(u"bra")}), u"true");
  EXPECT_EQ(Str(u"matches", {S(u"abracadabra"), S(u"^bra")}), u"false");
  EXPECT_EQ(Str(u"matches", {S(u"ABC"), S(u"abc")}), u"false");
  EXPECT_EQ(Str(u"matches", {S(u"ABC"), S(u"abc"), S(u"i")}), u"true");
  EXPECT_EQ(Str(u"matches", {S(u"a\nb"), S(u"a.b")}), u"false");
  EXPECT_EQ(Str(u"matches", {S(u"a\nb"), S(u"a.b"), S(u"s")}), u"true");
  EXPECT_EQ(Str(u"matches", {S(u"x\nb"), S(u"^b$")}), u"false");
  EXPECT_EQ(Str(u"matches", {S(u"x\nb"), S(u"^b$"), S(u"m")}), u"true");
  EXPECT_EQ(Str(u"matches", {S(u"abc"), S(u"a b c"), S(u"x")}), u"true");
  EXPECT_EQ(Str(u"matches", {S(u""), S(u"x*")}), u"true");

  EXPECT_EQ(Str(u"replace", {S(u"abracadabra"), S(u"bra"), S(u"*")}), u"a*cada*");
  EXPECT_EQ(Str(u"replace", {S(u"abracadabra"), S(u"a(.)"), S(u"a$1$1")}), u"abbraccaddabbra");
  EXPECT_EQ(Str(u"replace", {S(u"darted"), S(u"^(.*?)d(.*)$"), S(u"$1c$2")}), u"carted");
  EXPECT_EQ(Str(u"replace", {S(u"ab"), S(u"(a)"), S(u"\\$1=$1\\\\$2")}), u"$1=a\\b");
  EXPECT_EQ(Str(u"replace", {S(u"abc"), S(u"(b)"), S(u"[$12]")}), u"a[b2]c");
  EXPECT_EQ(Str(u"replace", {S(u"AbA"), S(u"a"), S(u"x"), S(u"i")}), u"xbx");

  EXPECT_EQ(Joined(Call(u"tokenize", {S(u"The cat sat"), S(u"\\s+")})), u"The|cat|sat");
  EXPECT_EQ(Joined(Call(u"tokenize", {S(u"1, 15, 24, 50"), S(u",\\s*")})), u"1|15|24|50");
  EXPECT_EQ(Joined(Call(u"tokenize", {S(u",a,,b,"), S(u",")})), u"|a||b|");
  EXPECT_EQ(Call(u"tokenize", {S(u",a,,b,"), S(u",")}).size(), 5u);
  EXPECT_EQ(Joined(Call(u"tokenize", {S(u"aXbxc"), S(u"x"), S(u"i")})), u"a|b|c");
  EXPECT_TRUE(Call(u"tokenize", {S(u""), S(u",")}).empty());

  std::u16string message;
  EXPECT_EQ(ErrorOf(u"matches", {S(u"a"), S(u"a"), S(u"q")}, &message), 51);
  EXPECT_NE(message.find(u"flag"), std::u16string::npos) << Ascii(message);
  EXPECT_EQ(ErrorOf(u"matches", {S(u"a"), S(u"(a")}, &message), 51);
  EXPECT_EQ(message.rfind(u"FORX0002: Invalid regular expression", 0), 0u) << Ascii(message);
  EXPECT_NE(message.find(u"U_REGEX"), std::u16string::npos) << Ascii(message);
  EXPECT_EQ(ErrorOf(u"replace", {S(u"abc"), S(u"x*"), S(u"-")}), 51);
  EXPECT_EQ(ErrorOf(u"tokenize", {S(u"abc"), S(u"b?")}), 51);
  EXPECT_EQ(ErrorOf(u"replace", {S(u"abc"), S(u"b"), S(u"$x")}), 51);
  EXPECT_EQ(ErrorOf(u"replace", {S(u"abc"), S(u"b"), S(u"a\\b")}), 51);
  EXPECT_EQ(ErrorOf(u"replace", {S(u"abc"), S(u"b"), S(u"$")}), 51);
}

TEST(XPathFunctionsTest, Sequences) {
  const Sequence five = Numbers({1, 2, 3, 4, 5});
  struct Case {
    const char16_t* function;
    std::vector<Sequence> arguments;
    std::u16string expected;
  };
  const std::vector<Case> cases{
      {u"subsequence", {five, N(2)}, u"2|3|4|5"},
      {u"subsequence", {five, N(1.5), N(2.6)}, u"2|3|4"},
      {u"subsequence", {five, N(0), N(3)}, u"1|2"},
      {u"subsequence", {five, N(-Inf), N(Inf)}, u""},
      {u"subsequence", {five, N(NaN), N(2)}, u""},
      {u"subsequence", {five, N(4), N(Inf)}, u"4|5"},
      {u"distinct-values",
       {{Item::OfNumber(1), Item::OfString(u"1"), Item::OfNumber(1.0), Item::OfNumber(NaN),
         Item::OfNumber(-0.0), Item::OfNumber(0), Item::OfNumber(NaN), Item::OfBoolean(true),
         Item::OfString(u"1"), Item::OfBoolean(true), Item::OfString(u"a")}},
       u"1|1|NaN|0|true|a"},
      {u"index-of", {Numbers({10, 20, 30, 20}), N(20)}, u"2|4"},
      {u"index-of", {Strings({u"a", u"1", u"a"}), N(1)}, u""},
      {u"index-of", {Strings({u"a", u"b", u"a"}), S(u"a")}, u"1|3"},
      {u"insert-before", {five, N(3), Strings({u"x", u"y"})}, u"1|2|x|y|3|4|5"},
      {u"insert-before", {five, N(0), S(u"x")}, u"x|1|2|3|4|5"},
      {u"insert-before", {five, N(9), S(u"x")}, u"1|2|3|4|5|x"},
      {u"remove", {five, N(2)}, u"1|3|4|5"},
      {u"remove", {five, N(6)}, u"1|2|3|4|5"},
      {u"reverse", {five}, u"5|4|3|2|1"},
      {u"unordered", {five}, u"1|2|3|4|5"},
      {u"count", {five}, u"5"},
      {u"exists", {{}}, u"false"},
      {u"empty", {{}}, u"true"},
      {u"deep-equal", {Numbers({1, 2}), Numbers({1, 2})}, u"true"},
      {u"deep-equal", {Numbers({1, 2}), {Item::OfNumber(1), Item::OfString(u"2")}}, u"false"},
      {u"deep-equal", {Numbers({NaN}), Numbers({NaN})}, u"true"},
      {u"deep-equal", {Numbers({1}), Numbers({1, 1})}, u"false"},
      {u"zero-or-one", {{}}, u""},
      {u"one-or-more", {five}, u"1|2|3|4|5"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(Ascii(c.function));
    EXPECT_EQ(Joined(Call(c.function, c.arguments)), c.expected);
  }
  EXPECT_EQ(ErrorOf(u"zero-or-one", {five}), 52);
  EXPECT_EQ(ErrorOf(u"one-or-more", {{}}), 52);
  EXPECT_EQ(ErrorOf(u"exactly-one", {{}}), 52);
  EXPECT_EQ(ErrorOf(u"exactly-one", {five}), 52);
  EXPECT_EQ(ErrorOf(u"boolean", {Strings({u"a", u"b"})}), 52);
}

TEST(XPathFunctionsTest, Nodes) {
  const auto doc = XmlSchema::NewDoc(
      u"<r xmlns='urn:d' xmlns:p='urn:p' xml:lang='en-GB'>"
      u"<p:e p:at='v' plain='1' xml:id='k1'>A</p:e>"
      u"<e xml:id='k2' xml:lang='DE'><?target data?>B</e>"
      u"<e key='k3'>C</e><e xml:id='k1'>dup</e></r>");
  xercesc::DOMDocument* document = doc->DocumentNode();
  xercesc::DOMElement* r = document->getDocumentElement();
  auto* first = static_cast<xercesc::DOMElement*>(r->getFirstChild());
  auto* second = static_cast<xercesc::DOMElement*>(first->getNextSibling());
  auto* third = static_cast<xercesc::DOMElement*>(second->getNextSibling());
  xercesc::DOMNode* pi = second->getFirstChild();
  xercesc::DOMNode* text = first->getFirstChild();
  xercesc::DOMAttr* defaultDeclaration = r->getAttributeNode(u"xmlns");
  xercesc::DOMAttr* prefixDeclaration = r->getAttributeNode(u"xmlns:p");
  xercesc::DOMAttr* prefixed = first->getAttributeNode(u"p:at");
  ASSERT_TRUE(pi && defaultDeclaration && prefixDeclaration && prefixed);
  third->setIdAttribute(u"key", true);

  struct Case {
    xercesc::DOMNode* node;
    std::u16string name, localName, namespaceUri;
  };
  const std::vector<Case> cases{{r, u"r", u"r", u"urn:d"},
                                {first, u"p:e", u"e", u"urn:p"},
                                {prefixed, u"p:at", u"at", u"urn:p"},
                                {first->getAttributeNode(u"plain"), u"plain", u"plain", u""},
                                {defaultDeclaration, u"", u"", u""},
                                {prefixDeclaration, u"p", u"p", u""},
                                {pi, u"target", u"target", u""},
                                {text, u"", u"", u""},
                                {document, u"", u"", u""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(Ascii(c.node->getNodeName()));
    const Sequence argument{Item::OfNode(c.node)};
    EXPECT_EQ(Str(u"name", {argument}), c.name);
    EXPECT_EQ(Str(u"local-name", {argument}), c.localName);
    EXPECT_EQ(Str(u"namespace-uri", {argument}), c.namespaceUri);
    EXPECT_EQ(Str(u"name", {}, c.node), c.name);  // the context node without an argument
  }
  EXPECT_EQ(Str(u"local-name", {{}}), u"");
  EXPECT_EQ(Str(u"name", {{Item::OfNode(second), Item::OfNode(first)}}), u"e");
  std::u16string message;
  EXPECT_EQ(ErrorOf(u"name", {N(1)}, &message), 52);
  EXPECT_NE(message.find(u"name()"), std::u16string::npos) << Ascii(message);
  EXPECT_EQ(ErrorOf(u"root", {S(u"a")}), 52);
  EXPECT_EQ(ErrorOf(u"local-name", {}), 52);  // no context item

  // id(): xml:id and attributes typed as ID, tokens from every item, in document order; of
  // elements sharing an ID only the first counts.
  auto ids = [&](Sequence argument) {
    std::u16string out;
    for (const Item& item : Call(u"id", {std::move(argument)}, pi))
      out += StringValue(item.node);
    return out;
  };
  EXPECT_EQ(ids(S(u" k2\tk1 ")),
            u"A"
            u"B");
  EXPECT_EQ(ids(Strings({u"k3 nothing", u"k2 k3"})), u"BC");
  EXPECT_EQ(ids(N(1)), u"");
  EXPECT_EQ(ids({Item::OfNode(third->getFirstChild())}), u"");

  auto lang = [&](xercesc::DOMNode* node, const char16_t* wanted) {
    return Str(u"lang", {S(wanted)}, node);
  };
  EXPECT_EQ(lang(text, u"en"), u"true");
  EXPECT_EQ(lang(prefixed, u"EN-gb"), u"true");
  EXPECT_EQ(lang(first, u"en-G"), u"false");
  EXPECT_EQ(lang(pi, u"de"), u"true");
  EXPECT_EQ(lang(second, u"en"), u"false");  // the nearest xml:lang decides
  EXPECT_EQ(lang(document, u"en"), u"false");

  const Sequence root = Call(u"root", {{Item::OfNode(prefixed)}});
  ASSERT_EQ(root.size(), 1u);
  EXPECT_EQ(root[0].node, document);
  EXPECT_TRUE(Call(u"root", {{}}).empty());
  EXPECT_EQ(Call(u"root", {}, text)[0].node, document);

  EXPECT_EQ(Str(u"string", {}, second), u"B");
  EXPECT_EQ(Str(u"string-length", {}, r), u"6");
  EXPECT_EQ(Str(u"number", {}, r), u"NaN");
  EXPECT_EQ(Str(u"data", {{Item::OfNode(first)}}), u"A");
  EXPECT_EQ(Joined(Call(u"distinct-values", {{Item::OfNode(first), Item::OfString(u"A")}})), u"A");
  EXPECT_EQ(Joined(Call(u"last", {}, r, 2, 7)), u"7");
  EXPECT_EQ(Joined(Call(u"position", {}, r, 2, 7)), u"2");
}

}  // namespace
}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
