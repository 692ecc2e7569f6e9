// Part: the header-block parser at every end offset; Part::Collection; Body and the bytes of its
// multipart payload.
#include <veskan/Body.h>
#include <veskan/XmlSchema.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace Veskan {
namespace {

using Lines = std::vector<std::pair<std::string, std::string>>;

ByteBuffer ToBuffer(const std::string& bytes) {
  return ByteBuffer(reinterpret_cast<const unsigned char*>(bytes.data()), 0,
                    static_cast<int>(bytes.size()));
}

std::string Bytes(const ByteBuffer& buffer) {
  return std::string(buffer, buffer.Size());
}

Lines HeaderLines(const Header::Collection& headers) {
  Lines lines;
  for (const Header& header : headers)
    lines.emplace_back(header.Name.ToUTF8(), header.Value.ToUTF8());
  return lines;
}

// ---- Part header blocks -------------------------------------------------------------------------

struct BlockCase {
  const char* name;
  std::string input;
  int start;
  int position;  // after parsing the whole input
  Lines headers;
};

std::vector<BlockCase> BlockCases() {
  return {
      {"empty line only", "\r\n", 0, 2, {}},
      {"two headers and payload",
       "Content-Type:   text/xml  \r\nX-A: 1\r\n\r\nbody",
       0,
       38,
       {{"Content-Type", "text/xml"}, {"X-A", "1"}}},
      {"name keeps blank", "Name : v\r\n\r\n", 0, 12, {{"Name ", "v"}}},
      {"duplicate kept once", "A: 1\r\nA: 1\r\nA: 2\r\n\r\n", 0, 20, {{"A", "1"}, {"A", "2"}}},
      {"line without colon", "A: 1\r\nno colon\r\n\r\n", 0, 6, {{"A", "1"}}},
      {"start inside buffer", "xxA: 1\r\n\r\n", 2, 10, {{"A", "1"}}},
      {"bare LF is no line end", "A: 1\nB: 2\r\n\r\n", 0, 13, {{"A", "1\nB: 2"}}},
      {"empty value and name", ":\r\n: x \r\n\r\n", 0, 11, {{"", ""}, {"", "x"}}},
      {"utf-8 value", "N: \xC3\xA9\r\n\r\n", 0, 9, {{"N", "\xC3\xA9"}}},
      {"ill-formed utf-8 gives empty text", "N: \xFF\r\n\r\n", 0, 8, {{"N", ""}}},
      {"no line end", "A: 1", 0, 0, {}},
      {"headers up to the end", "A: 1\r\n", 0, 6, {{"A", "1"}}},
      {"start at end", "A: 1\r\n", 6, 6, {}},
  };
}

TEST(PartHeaderBlock, ParsesWholeInput) {
  for (const BlockCase& c : BlockCases()) {
    SCOPED_TRACE(c.name);
    const ByteBuffer buffer = ToBuffer(c.input);
    int position = c.start;
    const Part part(buffer, position, buffer.Size());
    EXPECT_EQ(position, c.position);
    EXPECT_EQ(HeaderLines(part.Headers), c.headers);
    EXPECT_EQ(part.Content, nullptr);
  }
}

// Every shorter end gives the headers of the lines complete before it and a position behind the
// last of them; the parse never reads at or beyond the end.
TEST(PartHeaderBlock, EveryEndOffset) {
  for (const BlockCase& c : BlockCases()) {
    const ByteBuffer full = ToBuffer(c.input);
    for (int end = c.start; end <= full.Size(); ++end) {
      SCOPED_TRACE(std::string(c.name) + " end " + std::to_string(end));
      // Only the first `end` bytes exist, so that reading past them is caught by the sanitizers.
      const ByteBuffer cut = ToBuffer(c.input.substr(0, static_cast<std::size_t>(end)));
      int position = c.start;
      const Part part(cut, position, end + 5);  // an end past the buffer is cut to its size
      EXPECT_LE(position, end);
      EXPECT_GE(position, c.start);
      const Lines lines = HeaderLines(part.Headers);
      ASSERT_LE(lines.size(), c.headers.size());
      EXPECT_TRUE(std::equal(lines.begin(), lines.end(), c.headers.begin()));
      if (end == full.Size()) {
        EXPECT_EQ(position, c.position);
      } else if (position > c.start && position == c.position) {
        // Completed early only when the empty line was already there.
        EXPECT_EQ(lines, c.headers);
      }
    }
  }
}

TEST(PartHeaderBlock, NegativePositionReadsNothing) {
  const ByteBuffer buffer = ToBuffer("A: 1\r\n\r\n");
  int position = -3;
  const Part part(buffer, position, buffer.Size());
  EXPECT_EQ(position, -3);
  EXPECT_EQ(part.Headers.Count(), 0);
}

TEST(Part, DefaultsAndIsXml) {
  Part part;
  EXPECT_EQ(part.MediaType.Text, u"application/octet-stream");
  EXPECT_FALSE(part.IsXml());
  part.Content = std::make_shared<Content>(u"<a/>");
  EXPECT_FALSE(part.IsXml());
  part.Content->Sealed(u"text/xml");
  EXPECT_TRUE(part.IsXml());
  part.Content = std::make_shared<Content>(u"<a>");
  part.Content->Sealed(u"text/xml");
  EXPECT_FALSE(part.IsXml());

  const Part copy(part);
  EXPECT_EQ(copy.Content, part.Content);
  EXPECT_EQ(&copy.Headers, &static_cast<const Part&>(copy).Headers);
  EXPECT_NE(&copy.Headers, &part.Headers);
}

TEST(PartCollection, AddIndexRemove) {
  Part::Collection parts;
  auto a = std::make_shared<Part>();
  auto b = std::make_shared<Part>();
  EXPECT_EQ(parts.Add(a), 0);
  EXPECT_EQ(parts.Add(b), 1);
  EXPECT_EQ(parts.Count(), 2);
  EXPECT_EQ(parts[0], a);
  EXPECT_EQ(parts[1], b);
  EXPECT_EQ(parts[-1], nullptr);
  EXPECT_EQ(parts[2], nullptr);
  const Part::Collection copy(parts);
  parts.RemoveAt(0);
  EXPECT_EQ(parts.Count(), 1);
  EXPECT_EQ(parts[0], b);
  EXPECT_EQ(copy.Count(), 2);
  EXPECT_EQ(copy[0], a);
  parts.Clear();
  EXPECT_EQ(parts.Count(), 0);
  EXPECT_EQ(parts[0], nullptr);
}

// ---- Body
// ----------------------------------------------------------------------------------------

// The boundary of a formatted body, checked to be 25 digits of 0-9 and A-V.
std::string Boundary(const Body& body) {
  const std::string type = body.Headers[Header::ContentType].ToUTF8();
  const std::string prefix = "multipart/mixed; boundary=";
  EXPECT_EQ(type.compare(0, prefix.size(), prefix), 0) << type;
  const std::string boundary = type.substr(prefix.size());
  EXPECT_EQ(boundary.size(), 25u);
  EXPECT_EQ(boundary.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUV"), std::string::npos);
  return boundary;
}

TEST(Body, OnePartOfText) {
  Body body;
  auto part = std::make_shared<Part>();
  part->Content = std::make_shared<Content>(u"hello");
  body.Parts.Add(part);
  body.FormatMultipartMessage();

  const std::string boundary = Boundary(body);
  EXPECT_EQ(part->Headers[Header::ContentType], u"text/plain");
  EXPECT_EQ(part->MediaType.Text, u"text/plain");
  ASSERT_NE(body.Content, nullptr);
  EXPECT_EQ(Bytes(*body.Content), "\r\n--" + boundary +
                                      "\r\nContent-Type: text/plain\r\n\r\nhello\r\n--" + boundary +
                                      "--\r\n");
  EXPECT_EQ(body.Content->Length, body.Content->Size());
  EXPECT_EQ(body.Content->IsSealed, 1);
  EXPECT_EQ(body.MediaType.TypeAndSubtype, u"multipart/mixed");
  EXPECT_EQ(body.MediaType.Parameters.Count(), 1);
  EXPECT_EQ(StringBuffer(body.MediaType.Parameters[0]).ToUTF8(), "boundary=" + boundary);
}

TEST(Body, SeveralPartsKeepTheirHeadersAndBytes) {
  Body body;
  auto xml = std::make_shared<Part>();
  xml->Content = std::make_shared<Content>(u"<?xml version=\"1.0\"?><a/>");
  xml->Headers.Add(Header(u"Content-ID", u"q1"));
  auto empty = std::make_shared<Part>();
  auto typed = std::make_shared<Part>();
  const unsigned char raw[] = {0, 1, 2};
  typed->Content = std::make_shared<Content>(raw, 3);
  typed->Headers[Header::ContentType] = u"image/png";
  body.Parts.Add(xml);
  body.Parts.Add(empty);
  body.Parts.Add(typed);
  body.Headers[Header::ContentType] = u"text/old";
  body.FormatMultipartMessage();

  const std::string b = Boundary(body);
  EXPECT_EQ(body.Headers.Count(), 1);
  ASSERT_NE(empty->Content, nullptr);
  EXPECT_TRUE(xml->IsXml());
  EXPECT_EQ(Bytes(*body.Content), "\r\n--" + b +
                                      "\r\nContent-ID: q1\r\nContent-Type: text/xml\r\n\r\n" +
                                      "<?xml version=\"1.0\"?><a/>" + "\r\n--" + b +
                                      "\r\nContent-Type: application/octet-stream\r\n\r\n" +
                                      "\r\n--" + b + "\r\nContent-Type: image/png\r\n\r\n" +
                                      std::string("\0\1\2", 3) + "\r\n--" + b + "--\r\n");
  EXPECT_EQ(empty->MediaType.Text, u"application/octet-stream");
  EXPECT_EQ(typed->MediaType.Major, u"image");
}

TEST(Body, NullEntriesAreLeftOut) {
  Body body;
  body.Parts.Add(nullptr);
  auto part = std::make_shared<Part>();
  part->Content = std::make_shared<Content>(u"x");
  body.Parts.Add(part);
  body.FormatMultipartMessage();
  const std::string b = Boundary(body);
  EXPECT_EQ(Bytes(*body.Content),
            "\r\n--" + b + "\r\nContent-Type: text/plain\r\n\r\nx\r\n--" + b + "--\r\n");
}

TEST(Body, ReformattingMakesNewBoundaryButKeepsSealedContent) {
  Body body;
  auto part = std::make_shared<Part>();
  part->Content = std::make_shared<Content>(u"one");
  body.Parts.Add(part);
  body.FormatMultipartMessage();
  const std::string first = Boundary(body);
  part->Content->Text = u"two";
  body.FormatMultipartMessage();
  const std::string second = Boundary(body);
  EXPECT_NE(first, second);
  EXPECT_EQ(
      Bytes(*body.Content),
      "\r\n--" + second + "\r\nContent-Type: text/plain\r\n\r\none\r\n--" + second + "--\r\n");
}

TEST(Body, WithoutPartsSealsOwnContent) {
  Body body;
  body.FormatMultipartMessage();
  EXPECT_EQ(body.Content, nullptr);
  EXPECT_EQ(body.Headers.Count(), 0);

  body.Content = std::make_shared<Content>(u"<?xml version=\"1.0\"?><a/>");
  body.FormatMultipartMessage();
  EXPECT_EQ(body.Headers[Header::ContentType], u"text/xml");
  EXPECT_EQ(body.MediaType.Text, u"text/xml");
  EXPECT_EQ(Bytes(*body.Content), "<?xml version=\"1.0\"?><a/>");
  EXPECT_TRUE(body.IsXml());

  Body typed;
  typed.Content = std::make_shared<Content>(u"<a/>");
  typed.Headers[Header::ContentType] = u"application/rdf+xml";
  typed.FormatMultipartMessage();
  EXPECT_TRUE(typed.IsXml());
  EXPECT_EQ(typed.MediaType.Minor, u"rdf+xml");
}

TEST(Body, CopyCopiesCookiesAndSharesParts) {
  Body body;
  body.Cookies[u"a"]->Value = u"1";
  body.Parts.Add(std::make_shared<Part>());
  Body copy(body);
  EXPECT_EQ(copy.Parts[0], body.Parts[0]);
  copy.Cookies[u"a"]->Value = u"2";
  EXPECT_EQ(body.Cookies[u"a"]->Value, u"1");
  EXPECT_EQ(&copy.Parts, &static_cast<const Body&>(copy).Parts);
  EXPECT_NE(&copy.Parts, &body.Parts);
}

// A formatted payload splits back into the same parts with the part parser.
TEST(Body, PayloadParsesBack) {
  Body body;
  for (const char16_t* text : {u"alpha", u"<?xml version=\"1.0\"?><b/>", u""}) {
    auto part = std::make_shared<Part>();
    part->Content = std::make_shared<Content>(text);
    body.Parts.Add(part);
  }
  body.FormatMultipartMessage();
  const std::string payload = Bytes(*body.Content);
  const std::string delimiter = "\r\n--" + Boundary(body);
  std::size_t at = payload.find(delimiter);
  for (int i = 0; i < body.Parts.Count(); ++i) {
    SCOPED_TRACE(i);
    ASSERT_NE(at, std::string::npos);
    int position = static_cast<int>(at + delimiter.size() + 2);
    const Part parsed(*body.Content, position, body.Content->Size());
    EXPECT_EQ(HeaderLines(parsed.Headers), HeaderLines(body.Parts[i]->Headers));
    at = payload.find(delimiter, static_cast<std::size_t>(position));
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(payload.substr(static_cast<std::size_t>(position), at - position),
              Bytes(*body.Parts[i]->Content));
  }
  EXPECT_EQ(payload.substr(at + delimiter.size()), "--\r\n");
}

}  // namespace
}  // namespace Veskan
