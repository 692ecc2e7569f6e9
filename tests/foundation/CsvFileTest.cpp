// CSV lines and files, the line reader under every split of its input, tags and file paths.
#include <veskan/CsvFile.h>

#include "TestSupport.h"
#include "foundation/CsvLine.h"
#include "foundation/LineReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Veskan {
namespace {

using Testing::TemporaryFolder;

// The fields of a list joined by '|', for exact comparison.
std::u16string Joined(const StringList& fields) {
  std::u16string text;
  for (int i = 0; i < fields.Count(); ++i) {
    if (i > 0) text += u'|';
    text += StringBuffer(fields[i]).getTerminatedBuffer();
  }
  return text;
}

TEST(CsvLineTest, SplitsFieldsAndQuotedFields) {
  struct {
    const char* line;
    int count;  // 0: the line is rejected
    const char16_t* fields;
  } const cases[] = {
      {R"(a,"b,c","d""e",)", 4, u"a|b,c|d\"e|"},
      {",", 2, u"|"},
      {" a , b ", 2, u" a | b "},
      {R"("")", 1, u""},
      {R"("","")", 2, u"|"},
      {R"("""")", 1, u"\""},
      {R"("a""",b)", 2, u"a\"|b"},
      {R"("ab"c",d)", 2, u"ab\"c|d"},  // a lone quotation mark inside stays
      {R"(a"b,c)", 2, u"a\"b|c"},      // quotation marks only open a field at its start
      {"a\rb", 1, u"a\rb"},
      {"\xC3\xA9,\xE2\x82\xAC", 2, u"\u00E9|\u20AC"},
      {"", 0, u""},
      {R"("abc)", 0, u""},
      {R"(a,"b""")", 2, u"a|b\""},
      {R"(a,"b"")", 0, u""},
      {R"(""")", 0, u""},
      {"\xFF,a", 0, u""},
      {"a,\xC3", 0, u""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    StringList fields{u"left over"};
    const std::string line(c.line);
    EXPECT_EQ(Detail::SplitCsvLine(reinterpret_cast<const unsigned char*>(line.data()),
                                   static_cast<int>(line.size()), fields),
              c.count > 0);
    EXPECT_EQ(fields.Count(), c.count);
    if (c.count > 0) {
      EXPECT_EQ(Joined(fields), c.fields);
    }
  }
}

// Hands out a text in pieces whose sizes repeat `sizes`, and fails after `failAfter` bytes.
class PieceSource : public Detail::LineReader::Source {
 public:
  PieceSource(std::string bytes, std::vector<std::size_t> sizes, std::size_t failAfter)
      : bytes_(std::move(bytes)), sizes_(std::move(sizes)), failAfter_(failAfter) {}
  std::int64_t Read(unsigned char* destination, std::size_t capacity) override {
    if (next_ >= failAfter_) return -1;
    const std::size_t size = sizes_[turn_++ % sizes_.size()];
    const std::size_t count = std::min({size, capacity, bytes_.size() - next_, failAfter_ - next_});
    std::copy_n(bytes_.data() + next_, count, destination);
    next_ += count;
    return static_cast<std::int64_t>(count);
  }

 private:
  std::string bytes_;
  std::vector<std::size_t> sizes_;
  std::size_t failAfter_;
  std::size_t next_ = 0;
  std::size_t turn_ = 0;
};

std::vector<std::string> ReadLines(const std::string& bytes, std::vector<std::size_t> sizes,
                                   std::size_t failAfter = std::string::npos) {
  Detail::LineReader reader(std::make_unique<PieceSource>(bytes, std::move(sizes), failAfter));
  std::vector<std::string> lines;
  const unsigned char* line = nullptr;
  int length = 0;
  while (reader.Next(line, length))
    lines.emplace_back(reinterpret_cast<const char*>(line), static_cast<std::size_t>(length));
  EXPECT_FALSE(reader.HasMore());
  return lines;
}

TEST(LineReaderTest, GivesTheSameLinesForEverySplitOfTheInput) {
  const std::string x4096(4096, 'x');
  const std::string e = "\xC3\xA9", euro = "\xE2\x82\xAC", smile = "\xF0\x9F\x98\x80";
  const struct {
    std::string input;
    std::vector<std::string> lines;
  } cases[] = {
      {"a\nb\r\nc", {"a", "b", "c"}},
      {"a\n\nb\n", {"a", "", "b"}},
      {"", {}},
      {"\r\n", {""}},
      {"x\r", {"x\r"}},
      {"a\rb\n", {"a\rb"}},
      {std::string(5000, 'x') + "\nz", {x4096, std::string(904, 'x'), "z"}},
      {x4096 + "\n", {x4096}},
      {x4096 + "\r\n", {x4096}},
      {x4096 + "x\r\n", {x4096, "x"}},
      {x4096 + "\r\r\n", {x4096, "\r"}},
      // A piece never ends inside a UTF-8 character.
      {x4096.substr(1) + e + "\n", {x4096.substr(1), e}},
      {x4096.substr(2) + euro, {x4096.substr(2), euro}},
      {x4096.substr(3) + smile + "\n", {x4096.substr(3), smile}},
      {x4096.substr(4) + smile + "y", {x4096.substr(4) + smile, "y"}},
      {std::string(4100, '\x80'), {std::string(4096, '\x80'), std::string(4, '\x80')}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.input.size() << " bytes: " << c.input.substr(0, 12));
    EXPECT_EQ(ReadLines(c.input, {4096}), c.lines);
    for (std::size_t size = 1; size <= 5; ++size)
      ASSERT_EQ(ReadLines(c.input, {size}), c.lines) << "pieces of " << size;
    // Every split point near the start and around the limit, the rest in one piece.
    for (std::size_t at = 1; at <= c.input.size(); ++at) {
      if (at > 8 && (at < 4088 || at > 4104)) continue;
      ASSERT_EQ(ReadLines(c.input, {at, 1 << 20}), c.lines) << "split at " << at;
    }
  }
}

TEST(LineReaderTest, AFailingSourceEndsTheLines) {
  EXPECT_EQ(ReadLines("one\ntwo\nthree\n", {3}, 6), (std::vector<std::string>{"one", "tw"}));
  EXPECT_EQ(ReadLines("one\n", {4}, 0), std::vector<std::string>{});
}

TEST(CsvFileTest, ReadsLinesOfAFile) {
  const TemporaryFolder folder;
  for (const char* end : {"\n", "\r\n"}) {
    SCOPED_TRACE(end[0] == '\r' ? "CR LF" : "LF");
    const std::string bytes = std::string("\xEF\xBB\xBFname,\"class, room\"") + end + end +
                              "\"open" + end + "\xEF\xBB\xBF" + "x,\xC3\xA9" + end + "last,";
    CsvFile file(folder.WriteFile("lines.csv", bytes));
    std::vector<std::u16string> lines;
    while (file.Readable()) {
      const bool read = file.ReadLine();
      EXPECT_EQ(read, file.Fields().Count() > 0);
      lines.push_back(read ? Joined(file.Fields()) : u"-");
    }
    // The empty line and the unterminated quoted field give false; only the first mark goes.
    EXPECT_EQ(lines, (std::vector<std::u16string>{u"name|class, room", u"-", u"-",
                                                  u"\uFEFFx|\u00E9", u"last|"}));
    EXPECT_FALSE(file.ReadLine());
    EXPECT_EQ(file.Fields().Count(), 0);
  }
}

TEST(CsvFileTest, AMissingUnreadableOrForeignFileReadsNoLine) {
  const TemporaryFolder folder;
  const int descriptors = Testing::CountOpenDescriptors();
  const StringBuffer paths[] = {
      folder.File("missing.csv"), StringBuffer(folder.Path().string()),  // a folder
      folder.WriteFile("empty.csv", ""),
      folder.WriteFile("latin1.csv", "Z\xFCrich,\xE9t\xE9\nna\xEFve\n"),  // ISO 8859-1
      StringBuffer()};
  for (const StringBuffer& path : paths) {
    SCOPED_TRACE(path);
    CsvFile file(path);
    int lines = 0;
    for (int calls = 0; file.Readable() && calls < 10; ++calls)
      lines += file.ReadLine() ? 1 : 0;
    EXPECT_EQ(lines, 0);
    EXPECT_FALSE(file.Readable());
    EXPECT_FALSE(file.ReadLine());
  }
  EXPECT_EQ(Testing::CountOpenDescriptors(), descriptors);
}

// Random bytes, biased toward the characters that matter: every file must be read to its end in
// a bounded number of calls, and give exactly what the reader gives when fed in random pieces.
TEST(CsvFileTest, RandomBytesNeverBreakTheReader) {
  const TemporaryFolder folder;
  std::mt19937 random(4096);
  const std::string alphabet = "ab,\",\r\n\xC3\xA9\xF0\x9F\x98\x80\xFF\x80";
  for (int round = 0; round < 150; ++round) {
    std::string bytes(random() % 12000, '\0');
    for (char& byte : bytes) {
      byte = random() % 4 ? alphabet[random() % alphabet.size()] : static_cast<char>(random());
    }
    SCOPED_TRACE(testing::Message() << "round " << round << ", " << bytes.size() << " bytes");
    CsvFile file(folder.WriteFile("random.csv", bytes));
    std::vector<std::u16string> fromFile;
    std::size_t calls = 0;
    for (; file.Readable(); ++calls) {
      ASSERT_LE(calls, bytes.size());
      const bool read = file.ReadLine();
      ASSERT_EQ(read, file.Fields().Count() > 0);
      fromFile.push_back(read ? Joined(file.Fields()) : u"-");
    }
    std::vector<std::u16string> fromPieces;
    const bool marked = bytes.compare(0, 3, "\xEF\xBB\xBF") == 0;
    for (const std::string& line : ReadLines(bytes, {1 + random() % 700, 1 + random() % 9})) {
      StringList fields;
      const std::string text = fromPieces.empty() && marked ? line.substr(3) : line;
      const bool read = Detail::SplitCsvLine(reinterpret_cast<const unsigned char*>(text.data()),
                                             static_cast<int>(text.size()), fields);
      fromPieces.push_back(read ? Joined(fields) : u"-");
    }
    ASSERT_EQ(fromFile, fromPieces);
  }
}

TEST(TagsTest, SplitsAndJoinsWithinATag) {
  StringList list{u"kept"};
  EXPECT_EQ(Tags::SplitWithinTag(u"  math ,fractions;;\tgrade\u00A0 5 , ", list), 3);
  EXPECT_EQ(Joined(list), u"kept|math|fractions|grade 5");
  EXPECT_EQ(Tags::JoinWithinTag(list), u"kept, math, fractions, grade 5");
  EXPECT_EQ(Tags::SplitWithinTag(nullptr, list), 0);
  EXPECT_EQ(Tags::JoinWithinTag(StringList()), u"");
}

TEST(TagsTest, SplitsAndJoinsBetweenTags) {
  StringList list;
  EXPECT_EQ(Tags::SplitBetweenTags(u"a<br />b<BR>c<br/>\r\nd\n\n  e  <br\t/><br", list), 6);
  EXPECT_EQ(Joined(list), u"a|b|c|d|e|<br");
  StringList joined;
  EXPECT_EQ(Tags::SplitBetweenTags(Tags::JoinBetweenTags(list), joined), 6);
  EXPECT_EQ(Joined(joined), Joined(list));
  EXPECT_EQ(Tags::JoinBetweenTags({u"one", u"two"}), u"one<br />two");
  EXPECT_EQ(Tags::NormalizeWhitespace(u" a \r\n b "), u"a b");
}

TEST(FilePathTest, FoldsRunsOfSeparatorsOnly) {
  const std::pair<const char16_t*, const char16_t*> cases[] = {
      {u"/tmp//quiz///a.csv", u"/tmp/quiz/a.csv"},
      {u"//x/", u"/x/"},
      {u"./a/../b", u"./a/../b"},
      {u"C:\\quiz\\a.csv", u"C:\\quiz\\a.csv"},
      {nullptr, u""}};
  for (const auto& [path, expected] : cases) {
    SCOPED_TRACE(StringBuffer(path));
    EXPECT_EQ(StringBuffer(FilePath(path)), expected);
    EXPECT_EQ(FilePath(StringBuffer(path)).Text(), expected);
  }
}

}  // namespace
}  // namespace Veskan
