// Header and Header::Collection: lookups, changes and printing the block.
#include <veskan/Header.h>

#include <veskan/Logger.h>

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

namespace Veskan {
namespace {

std::string Bytes(const ByteBuffer& buffer) {
  return std::string(buffer, buffer.Size());
}

Header::Collection TwoCookies() {
  Header::Collection headers;
  headers.Add(Header(Header::SetCookie, u"a"));
  headers.Add(Header(Header::ContentType, u"text/xml"));
  headers.Add(Header(Header::SetCookie, u"b"));
  return headers;
}

TEST(HeaderTest, EqualityIsExact) {
  EXPECT_EQ(Header(u"A", u"1"), Header(u"A", u"1"));
  EXPECT_NE(Header(u"A", u"1"), Header(u"a", u"1"));
  EXPECT_NE(Header(u"A", u"1"), Header(u"A", u"1 "));
  EXPECT_EQ(Header(nullptr, nullptr), Header());
  EXPECT_EQ(std::u16string(Header::XCalvorcoVeskanEndpoint), u"X-Calvorco-Veskan-Endpoint");
}

TEST(HeaderCollectionTest, FirstMatchWinsNamesAreCaseSensitiveAndBadIndexesGiveTheInvalidHeader) {
  const Header::Collection headers = TwoCookies();
  EXPECT_EQ(headers[Header::SetCookie], u"a");
  EXPECT_TRUE(headers[u"content-type"].isEmpty());
  EXPECT_FALSE(headers.Contains(u"content-type"));
  EXPECT_TRUE(headers.Contains(u"Content-Type"));
  EXPECT_EQ(headers.Count(), 3);  // the const lookup of a missing name added nothing
  for (int index : {-1, 3, 1000}) {
    EXPECT_EQ(headers(index).Name, u"##invalid header##");
    EXPECT_TRUE(headers(index).Value.isEmpty());
  }
}

TEST(HeaderCollectionTest, CreatingIndexSetsOrAppends) {
  Header::Collection headers = TwoCookies();
  headers[u"Content-Type"] = u"text/plain";
  EXPECT_EQ(headers.Count(), 3);
  headers[u"X-New"] = u"1";
  EXPECT_EQ(headers.Count(), 4);
  EXPECT_EQ(headers(3), Header(u"X-New", u"1"));
  EXPECT_EQ(headers(1).Value, u"text/plain");
  // A name taken from one of the collection's own values, while appending moves the list.
  headers[u"X-Name"] = u"X-Taken";
  while (headers.Count() < 8)
    headers.Add(Header(u"Filler"));
  headers[headers(4).Value.c_str()] = u"2";
  EXPECT_EQ(headers(8), Header(u"X-Taken", u"2"));
}

TEST(HeaderCollectionTest, AddAnotherRemoveAndRemoveAt) {
  Header::Collection headers = TwoCookies();
  headers.AddAnother(Header(Header::SetCookie, u"a"));
  EXPECT_EQ(headers.Count(), 3);
  headers.AddAnother(Header(Header::SetCookie, u"c"));
  EXPECT_EQ(headers.Count(), 4);
  headers.Remove(Header::SetCookie);
  ASSERT_EQ(headers.Count(), 1);
  EXPECT_EQ(headers(0).Name, u"Content-Type");
  headers.RemoveAt(1);
  headers.RemoveAt(-1);
  EXPECT_EQ(headers.Count(), 1);
  // Removed headers are gone from every view, also while the collection keeps their room.
  EXPECT_EQ(std::distance(headers.begin(), headers.end()), 1);
  EXPECT_FALSE(headers.Contains(Header::SetCookie));
  // A field added into that room may be named by text of a field beside it.
  headers[headers(0).Value.c_str()] = u"1";
  EXPECT_EQ(headers(1), Header(u"text/xml", u"1"));
  headers.RemoveAt(1);
  ByteBuffer block;
  headers.Write(block, 0, true);
  EXPECT_EQ(Bytes(block), "Content-Type: text/xml\r\n\r\n");
  headers.RemoveAt(0);
  EXPECT_EQ(headers.Count(), 0);
  EXPECT_EQ(headers.begin(), headers.end());
  // Headers added into that room carry nothing of the removed ones.
  EXPECT_TRUE(headers.Append().Value.isEmpty());
  headers.Add(Header(u"B"));
  headers[u"C"];
  EXPECT_EQ(headers.Count(), 3);
  EXPECT_EQ(headers(0), Header());
  EXPECT_EQ(headers(1), Header(u"B"));
  EXPECT_EQ(headers(2), Header(u"C"));
}

TEST(HeaderCollectionTest, CopyAppendsAndCopyingOntoItselfDoubles) {
  Header::Collection headers = TwoCookies();
  headers.Copy(headers);
  ASSERT_EQ(headers.Count(), 6);
  EXPECT_EQ(headers(3), Header(Header::SetCookie, u"a"));
  EXPECT_EQ(headers(5), Header(Header::SetCookie, u"b"));
  Header::Collection copy(headers);
  headers.Clear();
  EXPECT_EQ(headers.Count(), 0);
  EXPECT_EQ(copy.Count(), 6);
  // Cleared and filled again, shorter, it copies and doubles only what it holds now.
  headers.Add(Header(u"X", std::u16string(1000, u'x').c_str()));
  headers.Copy(headers);
  ASSERT_EQ(headers.Count(), 2);
  EXPECT_EQ(headers(1), headers(0));
  Header::Collection moved(std::move(headers));
  EXPECT_EQ(moved.Count(), 2);
  EXPECT_EQ(headers.Count(), 0);
  headers = std::move(copy);
  EXPECT_EQ(headers.Count(), 6);
  EXPECT_EQ(std::distance(headers.begin(), headers.end()), 6);
}

TEST(HeaderCollectionWriteTest, PrintsLinesAndTheEmptyLineLeavingOutThoseThatWouldSplitIt) {
  ByteBuffer empty;
  EXPECT_EQ(Header::Collection().Write(empty, 0, true), 2);
  EXPECT_EQ(Bytes(empty), "\r\n");

  std::vector<std::string> warnings;
  const Logger::Severity::Enumeration threshold = Logger::Threshold();
  Logger::SetThreshold(Logger::Severity::Warning);
  Logger::Sink previous =
      Logger::SetSink([&warnings](Logger::Severity::Enumeration severity, const char* text, int) {
        if (severity == Logger::Severity::Warning) warnings.push_back(text);
      });
  Header::Collection headers;
  headers.Add(Header(u"A", u"1"));
  headers.Add(Header(u"X-Split", u"1\r\nSet-Cookie: admin=1"));
  headers.Add(Header(u"X-Lf", u"1\n\r\n<html>"));
  headers.Add(Header(u"X-Nul", StringBuffer(u"1\0", 2)));
  headers.Add(Header(u"X-Del", u"\u007F"));
  headers.Add(Header(u"X-Lone", StringBuffer(u"a\xDC00", 2)));  // no UTF-8 form
  headers.Add(Header(u"X-Pair", u"\U0001F600"));
  headers.Add(Header(u"Bad Name", u"1"));
  headers.Add(Header(u"Bad:Name", u"1"));
  headers.Add(Header(u"\u010A", u"1"));  // its low byte is LF
  headers.Add(Header(u"", u"1"));
  headers.Add(Header(u"!#$%&'*+-.^_`|~", u"\ttab and caf\u00E9\t"));
  ByteBuffer buffer;
  EXPECT_EQ(headers.Write(buffer, 0, true), 56);
  EXPECT_EQ(Bytes(buffer),
            "A: 1\r\nX-Pair: \xF0\x9F\x98\x80\r\n!#$%&'*+-.^_`|~: \ttab and caf\xC3\xA9\t\r\n\r\n");
  Logger::SetSink(previous);
  Logger::SetThreshold(threshold);
  const std::string dropped =
      "Veskan::Header::Collection::Write header dropped, its name is no token or its value holds "
      "a control character or an unpaired surrogate, name: ";
  EXPECT_EQ(warnings,
            (std::vector<std::string>{dropped + "X-Split", dropped + "X-Lf", dropped + "X-Nul",
                                      dropped + "X-Del", dropped + "X-Lone", dropped + "Bad Name",
                                      dropped + "Bad:Name", dropped + "\xC4\x8A", dropped}));
}

TEST(HeaderCollectionWriteTest, WritesUtf8AtAnOffsetAndKeepsWhatWasBefore) {
  Header::Collection headers;
  headers[u"Title"] = u"caf\u00E9 \u20AC";
  ByteBuffer buffer;
  buffer = "HTTP/1.1 200 OK\r\n";
  const int written = headers.Write(buffer, buffer.Size(), true);
  EXPECT_EQ(Bytes(buffer), "HTTP/1.1 200 OK\r\nTitle: caf\xC3\xA9 \xE2\x82\xAC\r\n\r\n");
  EXPECT_EQ(written, 20);
}

TEST(HeaderCollectionWriteTest, WithoutGrowingOnlyWhatFitsIsWritten) {
  Header::Collection headers;
  headers[u"A"] = u"1";
  for (int size = 0; size <= 8; ++size) {
    SCOPED_TRACE(size);
    ByteBuffer buffer(size);
    const int written = headers.Write(buffer, 0, false);
    EXPECT_EQ(written, std::min(size, 8));
    EXPECT_EQ(buffer.Size(), size);
    EXPECT_EQ(Bytes(buffer).substr(0, static_cast<std::size_t>(written)),
              std::string("A: 1\r\n\r\n").substr(0, static_cast<std::size_t>(written)));
  }
  ByteBuffer buffer(4);
  EXPECT_EQ(headers.Write(buffer, -1, true), 0);
}

}  // namespace
}  // namespace Veskan
