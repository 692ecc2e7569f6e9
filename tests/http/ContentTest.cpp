// MediaType: splitting media-type texts and suggesting file names; Content: its forms, the type
// guess and sealing.
#include <veskan/Body.h>
#include <veskan/Content.h>
#include <veskan/Logger.h>
#include <veskan/Message.h>
#include <veskan/XmlSchema.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace Veskan {
namespace {

std::string Utf8(const icu::UnicodeString& text) {
  return StringBuffer(text).ToUTF8();
}

std::string Bytes(const ByteBuffer& buffer) {
  return std::string(buffer, buffer.Size());
}

std::vector<std::string> Entries(const StringList& list) {
  std::vector<std::string> entries;
  for (const StringBuffer& entry : list)
    entries.push_back(entry.ToUTF8());
  return entries;
}

// ---- MediaType ---------------------------------------------------------------------------------

TEST(MediaType, DefaultIsOctetStream) {
  const MediaType type;
  EXPECT_EQ(Utf8(type.Text), "application/octet-stream");
  EXPECT_EQ(Utf8(type.TypeAndSubtype), "application/octet-stream");
  EXPECT_EQ(Utf8(type.Major), "application");
  EXPECT_EQ(Utf8(type.Minor), "octet-stream");
  EXPECT_EQ(type.IsXml, 0);
  EXPECT_EQ(type.Parameters.Count(), 0);
}

TEST(MediaType, SplitsTexts) {
  struct Case {
    const char16_t* text;
    const char* typeAndSubtype;
    const char* major;
    const char* minor;
    int isXml;
    std::vector<std::string> parameters;
  };
  const Case cases[] = {
      {u"multipart/mixed; boundary=abc ; ; ",
       "multipart/mixed",
       "multipart",
       "mixed",
       0,
       {"boundary=abc"}},
      {u"text", "text", "text", "", 0, {}},
      {u"image/svg+xml", "image/svg+xml", "image", "svg+xml", 1, {}},
      {u"application/xml", "application/xml", "application", "xml", 1, {}},
      {u"application/xhtml", "application/xhtml", "application", "xhtml", 0, {}},
      {u"Text/XML", "Text/XML", "Text", "XML", 0, {}},
      {u"text/xml;charset=\"a;b\"", "text/xml", "text", "xml", 1, {"charset=\"a", "b\""}},
      {u"a;b/c", "a", "a;b", "", 0, {"b/c"}},
      {u"", "", "", "", 0, {}},
      {nullptr, "", "", "", 0, {}},
      {u"/xml", "/xml", "", "xml", 1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.typeAndSubtype);
    const MediaType type(c.text);
    EXPECT_EQ(type.Text, c.text);
    EXPECT_EQ(Utf8(type.TypeAndSubtype), c.typeAndSubtype);
    EXPECT_EQ(Utf8(type.Major), c.major);
    EXPECT_EQ(Utf8(type.Minor), c.minor);
    EXPECT_EQ(type.IsXml, c.isXml);
    EXPECT_EQ(Entries(type.Parameters), c.parameters);
  }
}

TEST(MediaType, SecondSetToWithoutParametersKeepsThem) {
  MediaType type(u"text/plain; charset=utf-8");
  type.SetTo(u"text/html");
  EXPECT_EQ(Utf8(type.Text), "text/html");
  EXPECT_EQ(Entries(type.Parameters), std::vector<std::string>{"charset=utf-8"});
  type.SetTo(u"text/html;level=1");
  EXPECT_EQ(Entries(type.Parameters), std::vector<std::string>{"level=1"});
  type.SetTo(u"text/html;");
  EXPECT_EQ(type.Parameters.Count(), 0);
}

TEST(MediaType, FileNameFromDisposition) {
  const Testing::TemporaryFolder temporary;
  struct Case {
    const char16_t* disposition;
    const char16_t* folder;
    const char* expected;
  };
  const Case cases[] = {
      {u"attachment; FILENAME=\"a\\\"b?.txt\"", u"/data", "/data/a_b_.txt"},
      {u"attachment; filename=report.pdf; size=3", u"/data/", "/data/report.pdf"},
      {u"attachment; FileName=x y", u"/d", "/d/x"},
      {u"inline;filename=\"a/b\\\\c*<>|.z\"", u"/d", "/d/a_b_c____.z"},
      {u"attachment; filename=", u"/d", "/d/"},
      {u"attachment; filename=\"unterminated", u"/d", "/d/unterminated"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(Utf8(MediaType::SuggestFileName(c.disposition, u"text/plain", c.folder)), c.expected);
  }
}

TEST(MediaType, FileNameFromType) {
  const Testing::TemporaryFolder temporary;
  const StringBuffer folder(temporary.Path().string());
  const std::string prefix = temporary.Path().string() + "/download";
  struct Case {
    const char16_t* type;
    const char* extension;
  };
  const Case cases[] = {
      {u"IMAGE/JPEG", ".jpg"},
      {u"text/plain; charset=utf-8", ".txt"},
      {u"text/html", ".html"},
      {u"image/svg+xml", ".svg"},
      {u"application/vnd.calvor.albumitem", ".albumitem"},
      {u"application/vnd.calvor.album", ".album"},
      {u"audio/mpeg", ".mp3"},
      {u"application/x-unknown", ".file"},
      {nullptr, ".file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.extension);
    EXPECT_EQ(Utf8(MediaType::SuggestFileName(nullptr, c.type, folder.c_str())),
              prefix + c.extension);
  }
  // A disposition without a file name falls back on the type.
  EXPECT_EQ(Utf8(MediaType::SuggestFileName(u"attachment", u"text/plain", folder.c_str())),
            prefix + ".txt");
}

TEST(MediaType, ExistingFileGivesNumberedName) {
  const Testing::TemporaryFolder temporary;
  const StringBuffer folder(temporary.Path().string() + "/");
  temporary.WriteFile("download.txt", "x");
  const std::string first =
      Utf8(MediaType::SuggestFileName(nullptr, u"text/plain", folder.c_str()));
  const std::string prefix = temporary.Path().string() + "/download(";
  ASSERT_EQ(first.compare(0, prefix.size(), prefix), 0) << first;
  ASSERT_GT(first.size(), prefix.size() + 5);
  EXPECT_EQ(first.substr(first.size() - 5), ").txt");
  const std::string number = first.substr(prefix.size(), first.size() - prefix.size() - 5);
  EXPECT_EQ(number.find_first_not_of("0123456789"), std::string::npos) << number;
  // The suggestion never names an existing file.
  temporary.WriteFile(first.substr(temporary.Path().string().size() + 1), "y");
  EXPECT_NE(Utf8(MediaType::SuggestFileName(nullptr, u"text/plain", folder.c_str())), first);
}

// ---- Content -----------------------------------------------------------------------------------

TEST(Content, ConstructorsSetForms) {
  const Content empty;
  EXPECT_EQ(empty.Length, 0);
  EXPECT_EQ(empty.Size(), 0);
  EXPECT_TRUE(empty.Text.isEmpty());
  EXPECT_EQ(empty.Document, nullptr);
  EXPECT_EQ(empty.IsSealed, 0);

  const Content text(u"h\u00e9");
  EXPECT_EQ(text.Length, -1);
  EXPECT_EQ(text.Size(), 0);
  EXPECT_EQ(Utf8(text.Text), "h\xC3\xA9");

  const unsigned char raw[] = {'a', 0, 'b'};
  const Content bytes(raw, 3);
  EXPECT_EQ(bytes.Length, 3);
  EXPECT_EQ(Bytes(bytes.Bytes), std::string("a\0b", 3));
  EXPECT_TRUE(bytes.Text.isEmpty());

  const Content negative(raw, -1);
  EXPECT_EQ(negative.Length, -1);
  EXPECT_EQ(negative.Size(), 0);

  const Content nullBytes(nullptr, 4);
  EXPECT_EQ(nullBytes.Size(), 0);
}

TEST(Content, CopyBindsReferencesToItsOwnMembers) {
  Content original(u"abc");
  original.Sealed(u"text/plain");
  Content copy(original);
  EXPECT_EQ(copy.IsSealed, 1);
  EXPECT_EQ(copy.Length, 3);
  EXPECT_EQ(Bytes(copy.Bytes), "abc");
  EXPECT_EQ(&copy.Bytes, static_cast<const ByteBuffer*>(&copy));
  EXPECT_EQ(&copy.Text, &static_cast<const Content&>(copy).Text);
  copy.Text = u"changed";
  EXPECT_EQ(Utf8(original.Text), "abc");
}

TEST(Content, EveryConstructorWritesTrace) {
  std::vector<std::string> lines;
  const Logger::Severity::Enumeration threshold = Logger::Threshold();
  Logger::SetThreshold(Logger::Severity::Trace);
  Logger::Sink previous =
      Logger::SetSink([&lines](Logger::Severity::Enumeration severity, const char* message, int) {
        if (severity == Logger::Severity::Trace) lines.emplace_back(message);
      });
  {
    const Content a;
    const Content b(u"t");
    const Content c(nullptr, 0);
    const Content d(a);
  }
  Logger::SetSink(previous);
  Logger::SetThreshold(threshold);
  EXPECT_EQ(lines, std::vector<std::string>(4, "Veskan::Content::Content"));
}

TEST(Content, GuessType) {
  auto bytes = [](const char* text) {
    return Content(reinterpret_cast<const unsigned char*>(text), static_cast<int>(strlen(text)));
  };
  EXPECT_EQ(Content(XmlSchema::NewDoc(u"<a/>")).GuessType(), Content::Types::TextXml);
  EXPECT_EQ(Content(u"<?xml version=\"1.0\"?><a/>").GuessType(), Content::Types::TextXml);
  EXPECT_EQ(Content(u"<a/>").GuessType(), Content::Types::TextPlain);
  EXPECT_EQ(Content(u"hello").GuessType(), Content::Types::TextPlain);
  EXPECT_EQ(bytes("<?xml").GuessType(), Content::Types::ApplicationOctetStream);
  EXPECT_EQ(bytes("<?xml ").GuessType(), Content::Types::TextXml);
  EXPECT_EQ(bytes("<?XML  ").GuessType(), Content::Types::ApplicationOctetStream);
  EXPECT_EQ(bytes("hello").GuessType(), Content::Types::ApplicationOctetStream);
  EXPECT_EQ(Content().GuessType(), Content::Types::ApplicationOctetStream);
  EXPECT_EQ(StringBuffer(Content::Types::ApplicationRdfXml), u"application/rdf+xml");
}

TEST(Content, SealingTextEncodesAndParsesXml) {
  struct Case {
    const char16_t* text;
    const char16_t* type;
    bool parsed;
  };
  const Case cases[] = {
      {u"<a>\u00e9</a>", u"text/plain", false},
      {u"<a>\u00e9</a>", u"text/xml", true},
      {u"<a>\u00e9</a>", u"application/rdf+xml", true},
      {u"<a>\u00e9</a>", u"text/xml; charset=utf-8", false},
      {u"<a>\u00e9</a>", u"TEXT/XML", false},
      {u"<?xml version=\"1.0\"?><a>\u00e9</a>", nullptr, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(StringBuffer(c.type).ToUTF8());
    Content content(c.text);
    content.Sealed(c.type);
    EXPECT_EQ(content.IsSealed, 1);
    EXPECT_EQ(Bytes(content), UTF16to8(c.text).Size() > 0 ? Bytes(UTF16to8(c.text)) : "");
    EXPECT_EQ(content.Length, content.Size());
    EXPECT_EQ(content.Document != nullptr, c.parsed);
    if (c.parsed) {
      EXPECT_EQ(Utf8(XmlSchema::DocumentElement(content.Document)->getTextContent()), "\xC3\xA9");
    }
  }
}

TEST(Content, SealingBytesDecodesText) {
  const std::string xml = "<?xml version=\"1.0\"?><r>1</r>";
  Content bytes(reinterpret_cast<const unsigned char*>(xml.data()), static_cast<int>(xml.size()));
  bytes.Sealed(u"application/octet-stream");
  EXPECT_EQ(Utf8(bytes.Text), xml);
  EXPECT_EQ(bytes.Length, static_cast<int>(xml.size()));
  ASSERT_NE(bytes.Document, nullptr);
  EXPECT_EQ(Utf8(XmlSchema::DocumentElement(bytes.Document)->getTextContent()), "1");

  Content plain(reinterpret_cast<const unsigned char*>("<r/>"), 4);
  plain.Sealed(u"text/plain");
  EXPECT_EQ(Utf8(plain.Text), "<r/>");
  EXPECT_EQ(plain.Document, nullptr);
}

TEST(Content, SealingDocumentPrintsIt) {
  Content content(XmlSchema::NewDoc(u"<r>x</r>"));
  content.Sealed(nullptr);
  const std::string printed = Bytes(XmlSchema::PrintDocUTF8(content.Document, true));
  EXPECT_EQ(Bytes(content), printed);
  EXPECT_EQ(printed.compare(0, 5, "<?xml"), 0);
  EXPECT_EQ(content.Length, static_cast<int>(printed.size()));
  EXPECT_EQ(Utf8(content.Text), printed);
}

TEST(Content, SealingNothingOnlySetsFlag) {
  Content content(u"");
  content.Sealed(u"text/xml");
  EXPECT_EQ(content.IsSealed, 1);
  EXPECT_EQ(content.Length, -1);
  EXPECT_EQ(content.Size(), 0);
  EXPECT_EQ(content.Document, nullptr);
}

TEST(Content, SecondSealingLeavesBytesStale) {
  Content content(u"first");
  content.Sealed(u"text/plain");
  content.Text = u"second";
  content.Sealed(u"text/plain");
  EXPECT_EQ(Bytes(content), "first");
  EXPECT_EQ(content.Length, 5);
  EXPECT_EQ(Utf8(content.Text), "second");
}

TEST(Content, TextThatDoesNotParseKeepsBytesAndText) {
  Content content(u"<?xml version=\"1.0\"?><open>");
  content.Sealed(u"text/xml");
  EXPECT_EQ(Bytes(content), "<?xml version=\"1.0\"?><open>");
  EXPECT_EQ(XmlSchema::DocumentElement(content.Document), nullptr);

  // A declaration the DOM refuses is input that does not parse, not an exception.
  Content version(reinterpret_cast<const unsigned char*>("<?xml version='1. '?><a/>"), 25);
  version.Sealed(nullptr);
  EXPECT_EQ(Utf8(version.Text), "<?xml version='1. '?><a/>");
  EXPECT_EQ(XmlSchema::DocumentElement(version.Document), nullptr);
}

TEST(RespondWithXml, RepliesWithTheDocumentAsTextXml) {
  const std::shared_ptr<Message> message = Message::New();
  message->Open(Methods::GET, u"http://host/quiz");
  const std::shared_ptr<XmlDocument> doc = XmlSchema::NewDoc(u"<quiz id=\"7\"/>");
  XmlSchema::RespondWithXml(message, doc);
  ASSERT_TRUE(message->Reply);
  ASSERT_TRUE(message->Reply->Content);
  EXPECT_EQ(message->Reply->Content->Document, doc);
  EXPECT_EQ(message->Reply->Headers[Header::ContentType], u"text/xml");

  message->Reply = nullptr;  // a message without a reply body gets one
  XmlSchema::RespondWithXml(message, doc);
  ASSERT_TRUE(message->Reply);
  EXPECT_EQ(message->Reply->Headers.Count(), 1);
  XmlSchema::RespondWithXml(nullptr, doc);
}

}  // namespace
}  // namespace Veskan
