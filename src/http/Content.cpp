// Content: a payload in byte, text and XML document forms, sealed once before sending.
#include <veskan/Content.h>

#include <veskan/Logger.h>
#include <veskan/XmlSchema.h>

#include <cstring>

namespace Veskan {

namespace {

// Named arrays rather than literals, so that no other equal literal shares their address: a
// caller may compare these pointers.
constexpr char16_t ApplicationOctetStreamText[] = u"application/octet-stream";
constexpr char16_t ApplicationRdfXmlText[] = u"application/rdf+xml";
constexpr char16_t TextPlainText[] = u"text/plain";
constexpr char16_t TextXmlText[] = u"text/xml";

constexpr char16_t XmlDeclarationStart[] = u"<?xml";

void TraceConstruction() {
  Logger::Line(Logger::Severity::Trace, "Veskan::Content::Content");
}

// The XML test of sealing: the text begins with "<?xml" or the media type, taken whole, ends with
// "/xml" or "+xml".
bool LooksLikeXml(const StringBuffer& text, const char16_t* mediaType) {
  if (text.startsWith(icu::UnicodeString(XmlDeclarationStart))) return true;
  const StringBuffer type(mediaType);
  return type.endsWith(icu::UnicodeString(u"/xml")) || type.endsWith(icu::UnicodeString(u"+xml"));
}

}  // namespace

const char16_t* const Content::Types::ApplicationOctetStream = ApplicationOctetStreamText;
const char16_t* const Content::Types::ApplicationRdfXml = ApplicationRdfXmlText;
const char16_t* const Content::Types::TextPlain = TextPlainText;
const char16_t* const Content::Types::TextXml = TextXmlText;

Content::Content()
    : Bytes(*this), Length(length_), Text(text_), Document(document_), IsSealed(isSealed_) {
  TraceConstruction();
}

Content::Content(const char16_t* text)
    : Bytes(*this),
      Length(length_),
      Text(text_),
      Document(document_),
      IsSealed(isSealed_),
      length_(-1),
      text_(text) {
  TraceConstruction();
}

Content::Content(const unsigned char* bytes, int length)
    : ByteBuffer(length >= 0 ? ByteBuffer(bytes, 0, length) : ByteBuffer()),
      Bytes(*this),
      Length(length_),
      Text(text_),
      Document(document_),
      IsSealed(isSealed_),
      length_(length) {
  TraceConstruction();
}

Content::Content(const std::shared_ptr<XmlDocument>& document)
    : Bytes(*this),
      Length(length_),
      Text(text_),
      Document(document_),
      IsSealed(isSealed_),
      document_(document) {
  TraceConstruction();
}

Content::Content(const Content& other)
    : ByteBuffer(other),
      Bytes(*this),
      Length(length_),
      Text(text_),
      Document(document_),
      IsSealed(isSealed_),
      length_(other.length_),
      text_(other.text_),
      document_(other.document_),
      isSealed_(other.isSealed_) {
  TraceConstruction();
}

Content& Content::operator=(const Content& other) {
  if (this == &other) return *this;
  ByteBuffer::operator=(other);
  length_ = other.length_;
  text_ = other.text_;
  document_ = other.document_;
  isSealed_ = other.isSealed_;
  return *this;
}

Content::~Content() = default;

const char16_t* Content::GuessType() const {
  if (document_) return Types::TextXml;
  if (text_.startsWith(icu::UnicodeString(XmlDeclarationStart))) return Types::TextXml;
  if (Size() >= 6 && std::memcmp(Data(), "<?xml", 5) == 0) return Types::TextXml;
  if (!text_.isEmpty()) return Types::TextPlain;
  return Types::ApplicationOctetStream;
}

void Content::Sealed(const char16_t* mediaType) {
  if (isSealed_) return;
  isSealed_ = 1;
  if (document_) {
    ByteBuffer::operator=(XmlSchema::PrintDocUTF8(document_, true));
    length_ = Size();
    text_ = UTF8to16(*this);
  } else if (!text_.isEmpty()) {
    ByteBuffer::operator=(UTF16to8(text_));
    length_ = Size();
    if (LooksLikeXml(text_, mediaType)) document_ = XmlSchema::NewDoc(*this);
  } else if (Size() > 0) {
    length_ = Size();
    text_ = UTF8to16(*this);
    if (LooksLikeXml(text_, mediaType)) document_ = XmlSchema::NewDoc(*this);
  }
}

}  // namespace Veskan
