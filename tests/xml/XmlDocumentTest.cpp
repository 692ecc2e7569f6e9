// XmlDocument and the document operations of XmlSchema: parsing, input that does not parse,
// printing and files.
#include <veskan/Logger.h>
#include <veskan/XmlSchema.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Veskan {
namespace {

std::string Bytes(const ByteBuffer& buffer) {
  return std::string(buffer, buffer.Size());
}

ByteBuffer ToBuffer(const std::string& bytes) {
  return ByteBuffer(reinterpret_cast<const unsigned char*>(bytes.data()), 0,
                    static_cast<int>(bytes.size()));
}

constexpr char16_t Declaration[] =
    u"<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\" ?>\n";

// Captures the library's log lines for one test.
class XmlDocumentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousSink_ =
        Logger::SetSink([this](Logger::Severity::Enumeration severity, const char* message, int) {
          if (severity >= Logger::Severity::Warning) lines_.emplace_back(message);
        });
  }
  void TearDown() override { Logger::SetSink(previousSink_); }

  std::vector<std::string> lines_;
  Logger::Sink previousSink_;
};

TEST_F(XmlDocumentTest, NoTextGivesAnEmptyOwnedDocumentWithoutParser) {
  const std::vector<std::shared_ptr<XmlDocument>> documents{
      XmlSchema::NewDoc(), XmlSchema::NewDoc(u""), XmlSchema::NewDoc(ByteBuffer())};
  for (const auto& doc : documents) {
    ASSERT_TRUE(doc);
    ASSERT_NE(doc->DocumentNode(), nullptr);
    EXPECT_EQ(doc->Parser(), nullptr);
    EXPECT_TRUE(doc->Owns());
    EXPECT_FALSE(doc->DocumentNode()->hasChildNodes());
    EXPECT_EQ(XmlSchema::PrintDoc(doc, false), u"");
    EXPECT_EQ(XmlSchema::PrintDoc(doc, true), u"");
    EXPECT_EQ(XmlSchema::PrintDocUTF8(doc).Size(), 0);
  }
  EXPECT_TRUE(lines_.empty());
}

TEST_F(XmlDocumentTest, AParsedDocumentKeepsItsParser) {
  const auto doc = XmlSchema::NewDoc(u"<quiz xmlns='urn:q'><q id='1'>Hi</q></quiz>");
  ASSERT_NE(doc->DocumentNode(), nullptr);
  EXPECT_NE(doc->Parser(), nullptr);
  EXPECT_TRUE(doc->Owns());
  const xercesc::DOMElement* root = XmlSchema::DocumentElement(doc);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(StringBuffer(root->getLocalName()), u"quiz");
  EXPECT_EQ(StringBuffer(root->getNamespaceURI()), u"urn:q");
  EXPECT_EQ(static_cast<xercesc::DOMDocument*>(*doc), doc->DocumentNode());
}

std::string BillionLaughs() {
  std::string text = "<?xml version=\"1.0\"?><!DOCTYPE lolz [<!ENTITY lol \"lol\">";
  for (int level = 1; level <= 9; ++level) {
    text += "<!ENTITY lol" + std::to_string(level) + " \"";
    for (int i = 0; i < 10; ++i)
      text += level == 1 ? "&lol;" : "&lol" + std::to_string(level - 1) + ";";
    text += "\">";
  }
  return text + "]><lolz>&lol9;</lolz>";
}

// One entity of 64 KiB used 16384 times: 1 GiB of text from a 1 MiB document.
std::string QuadraticBlowUp() {
  std::string text = "<!DOCTYPE a [<!ENTITY x \"" + std::string(65536, 'x') + "\">]><a>";
  for (int i = 0; i < 16384; ++i)
    text += "&x;";
  return text + "</a>";
}

TEST_F(XmlDocumentTest, InputThatDoesNotParseGivesANullDocumentAndOneLogLine) {
  struct Case {
    const char* name;
    std::string bytes;
    const char* message;  // the parser's message for it
  };
  const std::vector<Case> cases{
      {"ill-formed", "<quiz><q></quiz>", "line: 1 column: 13 message: unterminated end tag 'q'"},
      {"truncated", "<quiz><q>", "input ended before all started tags were ended"},
      {"two document elements", "<a/><b/>", "comment or processing instruction expected"},
      {"unbound prefix", "<v:quiz/>", "prefix 'v' can not be resolved to namespace URI"},
      {"not UTF-8", "<a>\xff\xfe\xc3</a>", "message: invalid byte "},
      {"unknown encoding", "<?xml version='1.0' encoding='x-bogus'?><a/>",
       "unable to create converter for 'X-BOGUS' encoding"},
      {"only text", "hello", "invalid document structure"},
      {"unsupported version", "<?xml version='1. '?><a/>",
       "message: implementation does not support the requested type of object or operation"},
      {"billion laughs", BillionLaughs(), "column: 31 message: invalid document structure"},
      {"quadratic blow-up", QuadraticBlowUp(), "column: 10 message: invalid document structure"},
      {"external entity", "<!DOCTYPE a [<!ENTITY x SYSTEM 'file:///etc/hostname'>]><a>&x;</a>",
       "column: 10 message: invalid document structure"},
      {"external DTD", "<!DOCTYPE a SYSTEM 'http://127.0.0.1:9/a.dtd'><a/>",
       "column: 10 message: invalid document structure"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    lines_.clear();
    const auto doc = XmlSchema::NewDoc(ToBuffer(test.bytes));
    ASSERT_TRUE(doc);
    EXPECT_EQ(doc->DocumentNode(), nullptr);
    EXPECT_EQ(doc->Parser(), nullptr);
    EXPECT_EQ(XmlSchema::PrintDoc(doc), u"");
    EXPECT_EQ(XmlSchema::DocumentElement(doc), nullptr);
    EXPECT_EQ(XmlSchema::FindElement(doc, u"a"), nullptr);
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_EQ(lines_[0].rfind("Veskan::XmlSchema::NewDoc system-id: document.", 0), 0u)
        << lines_[0];
    EXPECT_NE(lines_[0].find(test.message), std::string::npos) << lines_[0];
  }
}

std::string Nested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i)
    text += "<e>";
  for (int i = 0; i < depth; ++i)
    text += "</e>";
  return text;
}

TEST_F(XmlDocumentTest, NestingIsLimitedSoThatPrintingCannotExhaustTheStack) {
  const auto deepest = XmlSchema::NewDoc(ToBuffer(Nested(512)));
  ASSERT_NE(deepest->DocumentNode(), nullptr);
  EXPECT_GT(XmlSchema::PrintDocUTF8(deepest).Size(), 512 * 7);
  EXPECT_TRUE(lines_.empty());
  for (int depth : {513, 1000000}) {
    SCOPED_TRACE(depth);
    lines_.clear();
    const auto doc = XmlSchema::NewDoc(ToBuffer(Nested(depth)));
    EXPECT_EQ(doc->DocumentNode(), nullptr);
    EXPECT_EQ(doc->Parser(), nullptr);
    ASSERT_EQ(lines_.size(), 1u);
    EXPECT_NE(lines_[0].find(" message: elements nested deeper than 512"), std::string::npos)
        << lines_[0];
  }
  // Siblings do not add up: depth is nesting, not count.
  std::string wide = "<a>";
  for (int i = 0; i < 2000; ++i)
    wide += "<e><f/></e>";
  EXPECT_NE(XmlSchema::NewDoc(ToBuffer(wide + "</a>"))->DocumentNode(), nullptr);
}

TEST_F(XmlDocumentTest, TextThatIsNotUtf16GivesANullDocument) {
  const char16_t loneSurrogate[] = {u'<', u'a', u'>', 0xD800, u'<', u'/', u'a', u'>', 0};
  const auto doc = XmlSchema::NewDoc(loneSurrogate);
  EXPECT_EQ(doc->DocumentNode(), nullptr);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_EQ(lines_[0], "Veskan::XmlSchema::NewDoc message: the text is not well-formed UTF-16");
}

TEST_F(XmlDocumentTest, TheFivePredefinedEntitiesAndCharacterReferencesStillWork) {
  const auto doc = XmlSchema::NewDoc(u"<a>&lt;&gt;&amp;&apos;&quot;&#233;&#x20AC;</a>");
  EXPECT_EQ(XmlSchema::GetTextContent(XmlSchema::DocumentElement(doc)), u"<>&'\"\u00e9\u20ac");
}

TEST_F(XmlDocumentTest, TextAndBytesParseAlikeAndDeclaredEncodingsAreHonoured) {
  const char16_t* text = u"<quiz>\u00e9\u20ac\U0001D11E</quiz>";
  EXPECT_EQ(XmlSchema::PrintDoc(XmlSchema::NewDoc(text)),
            XmlSchema::PrintDoc(XmlSchema::NewDoc(UTF16to8(text))));
  const auto latin1 =
      XmlSchema::NewDoc(ToBuffer("<?xml version='1.0' encoding='ISO-8859-1'?><a>\xe9</a>"));
  EXPECT_EQ(XmlSchema::GetTextContent(XmlSchema::DocumentElement(latin1)), u"\u00e9");
}

TEST_F(XmlDocumentTest, PrintingIsPrettyWithADeclarationWhateverTheFlag) {
  const auto doc = XmlSchema::NewDoc(
      u"<quiz xmlns=\"urn:q\"><q id=\"1\">Hi<b>x</b></q><e/><t>caf\u00e9 \U0001D11E</t></quiz>");
  const StringBuffer expected = StringBuffer(Declaration) +
                                u"<quiz xmlns=\"urn:q\">\n"
                                u"\n"
                                u"  <q id=\"1\">Hi\n"
                                u"    <b>x</b>\n"
                                u"  </q>\n"
                                u"\n"
                                u"  <e/>\n"
                                u"\n"
                                u"  <t>caf\u00e9 \U0001D11E</t>\n"
                                u"\n"
                                u"</quiz>\n";
  EXPECT_EQ(XmlSchema::PrintDoc(doc, false), expected);
  EXPECT_EQ(XmlSchema::PrintDoc(doc, true), expected);
  const ByteBuffer utf8 = XmlSchema::PrintDocUTF8(doc, true);
  EXPECT_EQ(Bytes(utf8), Bytes(UTF16to8(expected)));
  EXPECT_EQ(Bytes(utf8).substr(0, 5), "<?xml");  // no byte-order mark
  EXPECT_EQ(Bytes(XmlSchema::PrintDocUTF8(doc, false)), Bytes(utf8));
}

TEST_F(XmlDocumentTest, PrintingMarksTheDocumentVersion10AndStandalone) {
  const auto doc =
      XmlSchema::NewDoc(u"<?xml version=\"1.1\" encoding=\"ISO-8859-1\" standalone=\"no\"?><a/>");
  EXPECT_EQ(XmlSchema::PrintDoc(doc), StringBuffer(Declaration) + u"<a/>\n");
  EXPECT_EQ(StringBuffer(doc->DocumentNode()->getXmlVersion()), u"1.0");
  EXPECT_TRUE(doc->DocumentNode()->getXmlStandalone());
}

TEST_F(XmlDocumentTest, PrintElementPrintsTheNodeOrOnlyItsChildren) {
  const auto doc = XmlSchema::NewDoc(u"<quiz><q id=\"1\">Hi<b>x</b></q><e/></quiz>");
  xercesc::DOMElement* question = XmlSchema::FirstChildElement(XmlSchema::DocumentElement(doc));
  EXPECT_EQ(XmlSchema::PrintElement(question, true),
            u"\n<q id=\"1\">Hi\n"
            u"\n"
            u"  <b>x</b>\n"
            u"\n"
            u"</q>");
  EXPECT_EQ(XmlSchema::PrintElement(question, false), u"Hi\n<b>x</b>");
  EXPECT_EQ(XmlSchema::PrintElement(nullptr), u"");
}

TEST_F(XmlDocumentTest, DocumentsGoToFilesAndComeBack) {
  Testing::TemporaryFolder folder;
  const auto doc = XmlSchema::NewDoc(u"<quiz><q>caf\u00e9</q></quiz>");
  const StringBuffer path = folder.File("quiz.xml");
  ASSERT_TRUE(XmlSchema::DocToFile(doc, path));
  EXPECT_EQ(Testing::ReadWholeFile(path), Bytes(XmlSchema::PrintDocUTF8(doc, true)));
  const auto loaded = XmlSchema::DocFromFile(path);
  ASSERT_NE(loaded->DocumentNode(), nullptr);
  EXPECT_NE(loaded->Parser(), nullptr);
  EXPECT_EQ(XmlSchema::PrintDoc(loaded), XmlSchema::PrintDoc(doc));
  EXPECT_TRUE(lines_.empty());
}

TEST_F(XmlDocumentTest, FilesThatCannotBeWrittenOrReadGiveFalseOrANullDocument) {
  Testing::TemporaryFolder folder;
  const auto doc = XmlSchema::NewDoc(u"<a/>");
  EXPECT_FALSE(XmlSchema::DocToFile(doc, folder.File("missing/quiz.xml")));
  EXPECT_FALSE(XmlSchema::DocToFile(XmlSchema::NewDoc(), folder.File("empty.xml")));
  EXPECT_FALSE(XmlSchema::DocToFile(nullptr, folder.File("null.xml")));
  EXPECT_FALSE(XmlSchema::DocToFile(XmlSchema::NewDoc(u"<a"), folder.File("failed.xml")));
  EXPECT_EQ(Testing::ReadWholeFile(folder.File("empty.xml")), "");

  EXPECT_EQ(XmlSchema::DocFromFile(folder.File("absent.xml"))->DocumentNode(), nullptr);
  EXPECT_EQ(XmlSchema::DocFromFile(nullptr)->DocumentNode(), nullptr);
  const StringBuffer broken = folder.WriteFile("broken.xml", "<quiz><q></quiz>");
  EXPECT_EQ(XmlSchema::DocFromFile(broken)->DocumentNode(), nullptr);
}

TEST_F(XmlDocumentTest, ACopyOfTheHandleIsAViewThatFreesNothing) {
  const auto doc = XmlSchema::NewDoc(u"<a><b/></a>");
  {
    XmlDocument view(*doc);
    EXPECT_FALSE(view.Owns());
    EXPECT_EQ(view.DocumentNode(), doc->DocumentNode());
    EXPECT_EQ(view.Parser(), doc->Parser());
  }
  {
    const auto owner = XmlSchema::NewDoc(u"<c/>");
    XmlDocument assigned(owner->DocumentNode(), owner->Parser(), false);
    assigned = *doc;
    EXPECT_FALSE(assigned.Owns());
    EXPECT_EQ(assigned.DocumentNode(), doc->DocumentNode());
  }
  EXPECT_EQ(XmlSchema::PrintDoc(doc), StringBuffer(Declaration) + u"<a>\n\n  <b/>\n\n</a>\n");
}

TEST_F(XmlDocumentTest, NullDocumentsGiveEmptyResults) {
  EXPECT_EQ(XmlSchema::PrintDoc(nullptr), u"");
  EXPECT_EQ(XmlSchema::PrintDocUTF8(nullptr).Size(), 0);
  EXPECT_EQ(XmlSchema::DocumentNode(nullptr), nullptr);
  EXPECT_EQ(XmlSchema::DocumentElement(std::shared_ptr<XmlDocument>()), nullptr);
  EXPECT_EQ(XmlSchema::OwnerDocument(nullptr), nullptr);
}

}  // namespace
}  // namespace Veskan
