// MediaType, the pieces of a media-type text, and Content, the payload of a message or of one
// multipart part in its byte, text and XML document forms.
#ifndef VESKAN_CONTENT_H
#define VESKAN_CONTENT_H

#include <veskan/ByteBuffer.h>
#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <memory>

namespace Veskan {

class XmlDocument;

// A media type such as a "Content-Type" value, split into its pieces. Nothing is case-folded:
// "Text/XML" keeps its case and is not XML.
//
// Thread safety: none; a media type belongs to one part, which its message guards.
class VESKAN_API MediaType {
 public:
  // "application/octet-stream", without parameters.
  MediaType();
  // SetTo(text) on a fresh media type; null is the empty text.
  explicit MediaType(const char16_t* text);
  MediaType(const MediaType& other) = default;
  MediaType& operator=(const MediaType& other) = default;
  virtual ~MediaType();

  // Splits `text` (null: empty) at the first "/" and the first ";". When the text has no ";",
  // Parameters keeps what an earlier call left in it; otherwise it is replaced by the trimmed,
  // non-empty texts between the ";" behind the type.
  void SetTo(const char16_t* text);

  // A full path in `folder` under which to save a body: the "filename=" value of
  // `contentDisposition` (the name matched in any case; characters that cannot stand in a file
  // name become "_"), or else "download" with an extension chosen by `mediaType`, made unique with
  // a random number in brackets while a file of that path exists. Segments are joined with "/".
  static StringBuffer SuggestFileName(const char16_t* contentDisposition, const char16_t* mediaType,
                                      const char16_t* folder);

  StringBuffer Text;            // the whole text last given to SetTo
  StringBuffer TypeAndSubtype;  // before the first ";"
  StringBuffer Major;           // before the first "/"
  StringBuffer Minor;           // between the first "/" and the first ";"
  int IsXml = 0;                // 1 when Minor is "xml" or ends with "+xml"
  StringList Parameters;        // raw "name=value" texts, trimmed, none empty
};

// A payload that can be held as bytes (the ByteBuffer itself), as UTF-16 text and as a parsed XML
// document, and that fills the missing forms in once, when it is sealed.
//
// Length is the byte count recorded at construction or sealing: -1 for a content made from text,
// and not updated by later changes of the bytes. Use Size() for the bytes actually held.
//
// Thread safety: none; a content belongs to one message, which guards it. Sealing parses XML and
// needs no lock of its own.
class VESKAN_API Content : public ByteBuffer {
 public:
  // The media types that Content itself chooses.
  class VESKAN_API Types {
   public:
    static const char16_t* const ApplicationOctetStream;  // "application/octet-stream"
    static const char16_t* const ApplicationRdfXml;       // "application/rdf+xml"
    static const char16_t* const TextPlain;               // "text/plain"
    static const char16_t* const TextXml;                 // "text/xml"
  };

  // Every constructor writes the trace line "Veskan::Content::Content".
  // No bytes, no text, no document, not sealed; Length 0.
  Content();
  // The text form only (null: empty); Length -1.
  explicit Content(const char16_t* text);
  // Length is `length`; for a length of 0 or more that many bytes are copied (null `bytes` copies
  // none).
  Content(const unsigned char* bytes, int length);
  // The document form only; Length 0.
  explicit Content(const std::shared_ptr<XmlDocument>& document);
  // A copy of every form and of the sealed flag.
  Content(const Content& other);
  Content& operator=(const Content& other);
  ~Content() override;

  // Content::Types::TextXml for a document or for text or bytes (6 bytes at least) that begin
  // with "<?xml"; TextPlain for other non-empty text; ApplicationOctetStream otherwise.
  const char16_t* GuessType() const;

  // On the first call only: fills in the missing forms from the document, else the text, else the
  // bytes (read as UTF-8), and parses the bytes into Document when the text begins with "<?xml"
  // or `mediaType` (compared whole, case-sensitively) ends with "/xml" or "+xml". A text that does
  // not parse leaves the document as XmlSchema::NewDoc makes it. Later calls change nothing.
  void Sealed(const char16_t* mediaType);

  // The byte form: the object itself.
  const ByteBuffer& Bytes;
  const int& Length;
  // The text form. Changing it after sealing leaves the other forms as they were.
  StringBuffer& Text;
  const std::shared_ptr<XmlDocument>& Document;
  const int& IsSealed;

 private:
  int length_ = 0;
  StringBuffer text_;
  std::shared_ptr<XmlDocument> document_;
  int isSealed_ = 0;
};

}  // namespace Veskan

#endif
