// StringBuffer: construction, termination, comparison, and the UTF-8 conversions.
#include <veskan/ByteBuffer.h>
#include <veskan/StringBuffer.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Veskan {
namespace {

// The invariant every constructor and operator keeps: the unit after the text is NUL.
void ExpectTerminated(const StringBuffer& text) {
  const char16_t* units = text.c_str();
  ASSERT_NE(units, nullptr);
  EXPECT_EQ(units[text.length()], 0);
}

// The object's own buffer ends in NUL, and c_str() hands out that buffer itself.
void ExpectOwnBufferTerminated(const StringBuffer& text) {
  const icu::UnicodeString& base = text;
  ASSERT_FALSE(base.isBogus());
  ASSERT_NE(base.getBuffer(), nullptr);
  ASSERT_LT(base.length(), base.getCapacity());
  EXPECT_EQ(base.getBuffer()[base.length()], 0);
  EXPECT_EQ(text.c_str(), base.getBuffer());
}

TEST(StringBufferConstruction, NullPointersGiveTheEmptyString) {
  const char16_t* noText = nullptr;
  const char* noBytes = nullptr;
  for (const StringBuffer& text :
       {StringBuffer(noText), StringBuffer(noBytes), StringBuffer(nullptr), StringBuffer(noText, 3),
        StringBuffer(noText, 1, 2), StringBuffer()}) {
    EXPECT_TRUE(text.isEmpty());
    EXPECT_TRUE(!text);
    EXPECT_FALSE(static_cast<bool>(text));
    EXPECT_EQ(text.c_str()[0], 0);
  }
}

TEST(StringBufferConstruction, NarrowTextIsUtf8) {
  EXPECT_EQ(StringBuffer("\xC3\xA9"), u"\u00E9");
  EXPECT_EQ(StringBuffer("z\xF0\x9F\x98\x80"), u"z\U0001F600");
  EXPECT_EQ(StringBuffer(std::string("a\0b", 3)).length(), 3);
}

TEST(StringBufferConstruction, IllFormedUtf8GivesTheEmptyStringNotHalfAConversion) {
  for (const char* bytes :
       {"abc\xC3", "\xC0\xAF", "ok\xED\xA0\x80", "\xFF", "\x80x", "\xF4\x90\x80\x80"}) {
    SCOPED_TRACE(bytes);
    EXPECT_TRUE(StringBuffer(bytes).isEmpty());
    EXPECT_TRUE(UTF8to16(bytes).isEmpty());
  }
}

TEST(StringBufferConstruction, LengthAndStartSelectUnits) {
  EXPECT_EQ(StringBuffer(u"abcdef", 3), u"abc");
  EXPECT_EQ(StringBuffer(u"abcdef", 2, 3), u"cde");
  EXPECT_EQ(StringBuffer(u"abcdef", -1), u"abcdef");
  EXPECT_EQ(StringBuffer(u"abcdef", -5, 2), u"ab");
}

TEST(StringBufferTermination, ConstructorsAndOperatorsKeepTheBufferTerminated) {
  const std::u16string longText(300, u'x');
  StringBuffer grown(u"ab");
  grown += u"cd";
  grown += u'e';
  grown += StringBuffer(longText.c_str());
  StringBuffer assigned;
  assigned = u"assigned";
  StringBuffer narrowAssigned;
  narrowAssigned = "n\xC3\xA9";
  for (const StringBuffer& text :
       {StringBuffer(u"abc"), StringBuffer(longText.c_str()), StringBuffer("utf8"),
        StringBuffer(u"abcdef", 1, 2), StringBuffer(icu::UnicodeString(u"icu")), grown, assigned,
        narrowAssigned, StringBuffer(u"x") + u"y", StringBuffer(grown)}) {
    ExpectTerminated(text);
  }
  EXPECT_EQ(grown.length(), 305);
  EXPECT_EQ(narrowAssigned, u"n\u00E9");
}

TEST(StringBufferTermination, InheritedMutatorsAreReadWithoutWritingAndKeepTerminatedMendsThem) {
  StringBuffer text(u"abc");
  text.append(u"defghijklmnopqrstuvwxyz0123456789");  // icu::UnicodeString's own member
  ExpectTerminated(text);
  EXPECT_EQ(std::u16string(text.c_str()), u"abcdefghijklmnopqrstuvwxyz0123456789");

  // truncate() leaves the old unit after the new end: c_str() gives a terminated copy and leaves
  // the object as it is.
  StringBuffer cut(u"abcdef");
  cut.truncate(3);
  const icu::UnicodeString& base = cut;
  ASSERT_EQ(base.getBuffer()[3], u'd');
  const char16_t* copy = cut.c_str();
  EXPECT_EQ(std::u16string(copy), u"abc");
  EXPECT_EQ(base.getBuffer()[3], u'd');
  EXPECT_NE(copy, base.getBuffer());
  EXPECT_EQ(cut.c_str(), copy);  // the same text: the same pointer
  cut.append(u'x');
  EXPECT_EQ(std::u16string(cut.c_str()), u"abcx");
  cut.KeepTerminated();
  ExpectOwnBufferTerminated(cut);
  EXPECT_EQ(std::u16string(cut.c_str()), u"abcx");
}

// ICU's moves leave a short text without its NUL in the new object and a long one's old object
// bogus. Both sides of a move end terminated, the old one empty.
TEST(StringBufferTermination, MovesLeaveBothSidesTerminated) {
  const std::u16string longText(300, u'y');
  for (const std::u16string& text : {std::u16string(u"abc"), longText}) {
    SCOPED_TRACE(text.size());
    // Into storage full of non-zero bytes, so a missing NUL shows.
    alignas(StringBuffer) unsigned char storage[sizeof(StringBuffer)];
    std::memset(storage, 0xFF, sizeof storage);
    StringBuffer source(text.c_str());
    StringBuffer* moved = new (storage) StringBuffer(std::move(source));
    ExpectOwnBufferTerminated(*moved);
    EXPECT_EQ(std::u16string(moved->c_str()), text);
    ExpectOwnBufferTerminated(source);
    EXPECT_TRUE(source.isEmpty());
    moved->~StringBuffer();

    StringBuffer target(u"zzzzzzzzzzzzzzzz");
    StringBuffer another(text.c_str());
    target = std::move(another);
    ExpectOwnBufferTerminated(target);
    EXPECT_EQ(std::u16string(target.c_str()), text);
    ExpectOwnBufferTerminated(another);
    EXPECT_TRUE(another.isEmpty());

    StringBuffer& self = target;
    target = std::move(self);
    EXPECT_EQ(std::u16string(target.c_str()), text);

    icu::UnicodeString plain(text.c_str(), static_cast<int32_t>(text.size()));
    const StringBuffer fromIcu(std::move(plain));
    ExpectOwnBufferTerminated(fromIcu);
    EXPECT_EQ(std::u16string(fromIcu.c_str()), text);
  }
}

// Reads of one const object from many threads, c_str() included, write nothing: ThreadSanitizer
// finds no race, whether the object was moved into or left unterminated by an inherited member.
TEST(StringBufferThreads, ConcurrentReadsOfAConstObjectWriteNothing) {
  StringBuffer shortSource(u"short");
  StringBuffer longSource(std::u16string(100, u'l').c_str());
  StringBuffer cut(u"unterminated text");
  cut.truncate(12);
  StringBuffer target(u"zzzzzzzzzzzzzzzz");
  target = std::move(shortSource);
  const StringBuffer movedLong(std::move(longSource));
  const std::vector<std::pair<const StringBuffer*, std::u16string>> cases{
      {&target, u"short"}, {&movedLong, std::u16string(100, u'l')}, {&cut, u"unterminated"}};
  std::vector<std::thread> readers;
  std::atomic<int> wrong{0};
  for (int thread = 0; thread < 4; ++thread) {
    readers.emplace_back([&] {
      for (int round = 0; round < 2000; ++round) {
        for (const auto& [object, text] : cases) {
          const char16_t* units = object->c_str();
          if (std::u16string(units) != text || static_cast<const char16_t*>(*object) != units)
            ++wrong;
        }
      }
    });
  }
  for (std::thread& reader : readers)
    reader.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(StringBufferComparison, EqualityIsExactAndNullIsEmpty) {
  const StringBuffer text(u"Hello");
  EXPECT_TRUE(text == u"Hello");
  EXPECT_FALSE(text == u"hello");
  EXPECT_FALSE(text == u"Hell");
  EXPECT_FALSE(text == u"Hello!");
  EXPECT_TRUE(u"Hello" == text);
  EXPECT_TRUE(u"hello" != text);
  EXPECT_TRUE(StringBuffer() == static_cast<const char16_t*>(nullptr));
  EXPECT_FALSE(text == static_cast<const char16_t*>(nullptr));
  // A literal ends at its NUL, a buffer at its length; a bogus text equals nothing.
  const StringBuffer withNul(u"He\0lo", 5);
  EXPECT_FALSE(withNul == u"He");
  EXPECT_FALSE(withNul == u"He\0lo");
  EXPECT_TRUE(StringBuffer(u"He") == u"He\0lo");
  StringBuffer bogus;
  bogus.setToBogus();
  EXPECT_FALSE(bogus == u"");
  EXPECT_TRUE(text == StringBuffer(u"Hello"));
  EXPECT_TRUE(StringBuffer(u"B") < StringBuffer(u"a"));  // code units: 'B' is 0x42
}

TEST(StringBufferComparison, ConcatenationMakesANewBuffer) {
  const StringBuffer left(u"ab");
  const StringBuffer both = left + StringBuffer(u"cd");
  EXPECT_EQ(both, u"abcd");
  EXPECT_EQ(left, u"ab");
  EXPECT_EQ(left + u"x", u"abx");
  EXPECT_EQ(u"x" + left, u"xab");
  EXPECT_EQ(left + icu::UnicodeString(u"!"), u"ab!");
}

TEST(StringBufferComparison, CaseInsensitiveMapKeys) {
  std::map<StringBuffer, int, UnicodeStringTraitsI> headers;
  headers[StringBuffer(u"Content-Type")] = 1;
  headers[StringBuffer(u"content-type")] = 2;
  headers[StringBuffer(u"Accept")] = 3;
  EXPECT_EQ(headers.size(), 2u);
  EXPECT_EQ(headers[StringBuffer(u"CONTENT-TYPE")], 2);
  EXPECT_EQ(headers.begin()->first, u"Accept");
}

TEST(StringBufferComparison, LiteralHelpers) {
  EXPECT_EQ(SafeStringLiteral(nullptr)[0], 0);
  EXPECT_EQ(StringLength(nullptr), 0);
  EXPECT_EQ(StringLength(u"abc"), 3);
  EXPECT_TRUE(IsEmptyString(static_cast<const char16_t*>(nullptr)));
  EXPECT_TRUE(IsEmptyString(u""));
  EXPECT_FALSE(IsEmptyString(StringBuffer(u" ")));
  EXPECT_TRUE(CompareStringLiterals(nullptr, u"", false));
  EXPECT_TRUE(CompareStringLiterals(u"Stra\u00DFe", u"STRASSE", true));
  EXPECT_FALSE(CompareStringLiterals(u"abc", u"ABC", false));
  EXPECT_TRUE(CompareStringLiterals(u"abc", u"ABC", true));
}

TEST(Utf8Conversion, OffsetAndLengthSelectBytes) {
  EXPECT_EQ(UTF8to16("xx\xC3\xA9yy", 2, 2), u"\u00E9");
  EXPECT_EQ(UTF8to16("abc", 1, -1), u"bc");
  EXPECT_TRUE(UTF8to16("abc", 0, 0).isEmpty());
  EXPECT_TRUE(UTF8to16("abc", -1, 2).isEmpty());
  EXPECT_TRUE(UTF8to16("xx\xC3\xA9", 2, 1).isEmpty());  // cuts the sequence in half
  const unsigned char bytes[] = {'o', 'k', 0, 'x'};
  EXPECT_EQ(UTF8to16(bytes, 0, 4).length(), 4);
  EXPECT_EQ(UTF8to16(bytes, 0, -1), u"ok");
}

TEST(Utf8Conversion, RoundTripsEveryPlane) {
  const StringBuffer text(u"a\u00E9\u20AC\U0001F600z");
  const ByteBuffer bytes = UTF16to8(text);
  EXPECT_EQ(std::string(bytes, bytes.Size()), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z");
  EXPECT_EQ(bytes[bytes.Size()], 0);
  EXPECT_EQ(UTF8to16(bytes), text);
  EXPECT_EQ(UTF16to8(u"").Size(), 0);
  EXPECT_EQ(UTF16to8(static_cast<const char16_t*>(nullptr)).Size(), 0);
}

TEST(Utf8Conversion, UnpairedSurrogateGivesAnEmptyBuffer) {
  const char16_t broken[] = {u'a', 0xD800, u'b', 0};
  EXPECT_EQ(UTF16to8(broken).Size(), 0);
}

TEST(Utf8Conversion, LargeMultiByteTextsConvertCompletely) {
  // Large enough for the block compaction paths on both sides.
  std::string utf8;
  for (int i = 0; i < 20000; ++i)
    utf8 += "\xE2\x82\xAC";  // the euro sign, three bytes each
  const StringBuffer text = UTF8to16(utf8.c_str());
  ASSERT_EQ(text.length(), 20000);
  EXPECT_EQ(text.charAt(19999), 0x20AC);
  ExpectTerminated(text);
  const ByteBuffer back = UTF16to8(text);
  EXPECT_EQ(std::string(back, back.Size()), utf8);

  const std::u16string wide(50000, u'q');
  const ByteBuffer narrow = UTF16to8(wide.c_str());
  EXPECT_EQ(narrow.Size(), 50000);
  EXPECT_EQ(narrow.Capacity(), 50000);  // the worst-case reservation was given back
}

TEST(StringFromFileTest, ReadsUtf8AndDropsTheByteOrderMark) {
  Testing::TemporaryFolder folder;
  EXPECT_EQ(StringFromFile(folder.WriteFile("bom.txt", "\xEF\xBB\xBFquiz \xC3\xA9")),
            u"quiz \u00E9");
  EXPECT_EQ(StringFromFile(folder.WriteFile("plain.txt", "plain")), u"plain");
  EXPECT_TRUE(StringFromFile(folder.WriteFile("empty.txt", "")).isEmpty());
  EXPECT_TRUE(StringFromFile(folder.WriteFile("latin1.txt", "caf\xE9")).isEmpty());
  EXPECT_TRUE(StringFromFile(folder.File("missing.txt")).isEmpty());
  EXPECT_TRUE(StringFromFile(nullptr).isEmpty());
}

}  // namespace
}  // namespace Veskan
