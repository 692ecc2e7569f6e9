// XmlSchema: parsing, printing and saving whole documents.
#include <veskan/Globals.h>
#include <veskan/Logger.h>
#include <veskan/XmlSchema.h>

#include "xml/GlobalsAccess.h"
#include "xml/XercesHandles.h"

#include <xercesc/dom/DOMError.hpp>
#include <xercesc/dom/DOMErrorHandler.hpp>
#include <xercesc/dom/DOMLSException.hpp>
#include <xercesc/dom/DOMLSParserFilter.hpp>
#include <xercesc/dom/DOMLocator.hpp>
#include <xercesc/framework/LocalFileFormatTarget.hpp>
#include <xercesc/framework/LocalFileInputSource.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/Wrapper4InputSource.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <climits>
#include <cstdint>

namespace Veskan {

using Detail::XercesHandle;

namespace {

xercesc::DOMImplementation& Implementation() {
  return *Detail::GlobalsAccess::Implementation();
}

// Records the first error of a parse and stops the parser there; warnings let it go on.
class ParseErrors : public xercesc::DOMErrorHandler {
 public:
  bool handleError(const xercesc::DOMError& error) override {
    if (error.getSeverity() == xercesc::DOMError::DOM_SEVERITY_WARNING) return true;
    if (!failed_) {
      failed_ = true;
      message_ = error.getMessage();
      if (const xercesc::DOMLocator* location = error.getLocation()) {
        line_ = location->getLineNumber();
        column_ = location->getColumnNumber();
      }
    }
    return false;
  }

  bool Failed() const { return failed_; }
  const StringBuffer& Message() const { return message_; }
  XMLFileLoc Line() const { return line_; }
  XMLFileLoc Column() const { return column_; }

 private:
  bool failed_ = false;
  StringBuffer message_;
  XMLFileLoc line_ = 0;
  XMLFileLoc column_ = 0;
};

// The deepest element nesting a parsed document may have. Xerces' serialiser, text content and
// deep copies recurse once per level, so a document nested without bound would exhaust the
// stack of whoever prints or copies it; the system's own documents stay within a few dozen levels.
constexpr int MaxElementDepth = 512;

// Counts the open elements while the parser builds the tree and interrupts it past the limit.
class DepthLimit : public xercesc::DOMLSParserFilter {
 public:
  FilterAction startElement(xercesc::DOMElement*) override {
    if (++depth_ <= MaxElementDepth) return FILTER_ACCEPT;
    exceeded_ = true;
    return FILTER_INTERRUPT;
  }
  // Called as each element ends.
  FilterAction acceptNode(xercesc::DOMNode*) override {
    --depth_;
    return FILTER_ACCEPT;
  }
  xercesc::DOMNodeFilter::ShowType getWhatToShow() const override {
    return xercesc::DOMNodeFilter::SHOW_ELEMENT;
  }

  bool Exceeded() const { return exceeded_; }

 private:
  int depth_ = 0;
  bool exceeded_ = false;
};

std::shared_ptr<XmlDocument> NoDocument() {
  return std::make_shared<XmlDocument>(nullptr, nullptr, true);
}

std::shared_ptr<XmlDocument> EmptyDocument() {
  return std::make_shared<XmlDocument>(Implementation().createDocument(), nullptr, true);
}

// Parses `source` with the library's parser settings. The caller holds a Globals.
std::shared_ptr<XmlDocument> Parse(xercesc::InputSource& source, const char* method) {
  XercesHandle<xercesc::DOMLSParser> parser(
      Implementation().createLSParser(xercesc::DOMImplementationLS::MODE_SYNCHRONOUS, nullptr));
  xercesc::DOMConfiguration* configuration = parser->getDomConfig();
  configuration->setParameter(xercesc::XMLUni::fgDOMNamespaces, true);
  // No document type declarations: without a DTD no entity can expand (no billion laughs, no
  // quadratic blow-up) and nothing outside the document is ever loaded.
  configuration->setParameter(xercesc::XMLUni::fgDOMDisallowDoctype, true);
  ParseErrors errors;
  configuration->setParameter(xercesc::XMLUni::fgDOMErrorHandler,
                              static_cast<xercesc::DOMErrorHandler*>(&errors));

  DepthLimit depth;
  parser->setFilter(&depth);

  xercesc::Wrapper4InputSource input(&source, false);
  xercesc::DOMDocument* document = nullptr;
  try {
    document = parser->parse(&input);
  } catch (const xercesc::DOMLSException&) {
    // The interruption asked for by the depth limit; any other goes to the caller.
    if (!depth.Exceeded()) throw;
    Logger::Line(Logger::Severity::Warning, method)
        << " system-id: " << StringBuffer(source.getSystemId())
        << " message: elements nested deeper than " << MaxElementDepth;
    return NoDocument();
  } catch (const xercesc::DOMException& error) {
    // The DOM refuses what the scanner let through, such as an XML declaration whose version is
    // neither "1.0" nor "1.1": the input does not parse.
    Logger::Line(Logger::Severity::Warning, method)
        << " system-id: " << StringBuffer(source.getSystemId())
        << " message: " << StringBuffer(error.getMessage());
    return NoDocument();
  }
  configuration->setParameter(xercesc::XMLUni::fgDOMErrorHandler,
                              static_cast<const void*>(nullptr));
  parser->setFilter(nullptr);

  // Xerces hands back what it built up to a fatal error; a partial tree is never a document.
  if (errors.Failed() || !document) {
    Logger::Line(Logger::Severity::Warning, method)
        << " system-id: " << StringBuffer(source.getSystemId())
        << " line: " << static_cast<std::uint64_t>(errors.Line())
        << " column: " << static_cast<std::uint64_t>(errors.Column())
        << " message: " << errors.Message();
    return NoDocument();
  }
  return std::make_shared<XmlDocument>(document, parser.release(), true);
}

std::shared_ptr<XmlDocument> ParseBytes(const char* bytes, int length, const char* method) {
  xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(bytes),
                                    static_cast<XMLSize_t>(length), NewId(u"document."));
  return Parse(source, method);
}

enum class Declaration { SerialiserDefault, Always };

// Serialises `node` as UTF-8 into `target` with the library's serialiser settings; false when the
// serialiser reports a failure. The caller holds a Globals.
bool Serialise(const xercesc::DOMNode* node, xercesc::XMLFormatTarget& target,
               Declaration declaration) {
  xercesc::DOMImplementation& implementation = Implementation();
  XercesHandle<xercesc::DOMLSSerializer> serialiser(
      implementation.createLSSerializer(xercesc::XMLPlatformUtils::fgMemoryManager));
  xercesc::DOMConfiguration* configuration = serialiser->getDomConfig();
  configuration->setParameter(u"format-pretty-print", true);
  configuration->setParameter(u"http://apache.org/xml/features/dom/byte-order-mark", false);
  if (declaration == Declaration::Always) configuration->setParameter(u"xml-declaration", true);
  XercesHandle<xercesc::DOMLSOutput> output(implementation.createLSOutput());
  output->setEncoding(u"UTF-8");
  output->setByteStream(&target);
  return serialiser->write(node, output.get());
}

// A whole document, marked version 1.0 and standalone first; false without serialising for a null
// or empty document.
bool SerialiseDocument(const std::shared_ptr<XmlDocument>& doc, xercesc::XMLFormatTarget& target,
                       Declaration declaration) {
  xercesc::DOMDocument* document = doc ? doc->DocumentNode() : nullptr;
  if (!document || !document->hasChildNodes()) return false;
  document->setXmlVersion(u"1.0");
  document->setXmlStandalone(true);
  return Serialise(document, target, declaration);
}

StringBuffer TextOf(const xercesc::MemBufFormatTarget& target) {
  if (target.getLen() > static_cast<XMLSize_t>(INT_MAX)) return StringBuffer();
  return UTF8to16(reinterpret_cast<const char*>(target.getRawBuffer()), 0,
                  static_cast<int>(target.getLen()));
}

constexpr XMLSize_t InitialTargetCapacity = 1023;

}  // namespace

std::shared_ptr<XmlDocument> XmlSchema::NewDoc(const char16_t* text) {
  Globals keep;
  if (IsEmptyString(text)) return EmptyDocument();
  const ByteBuffer utf8 = UTF16to8(text);
  if (!utf8) {
    Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::NewDoc")
        << " message: the text is not well-formed UTF-16";
    return NoDocument();
  }
  return ParseBytes(utf8, utf8.Size(), "Veskan::XmlSchema::NewDoc");
}

std::shared_ptr<XmlDocument> XmlSchema::NewDoc(const ByteBuffer& bytes) {
  Globals keep;
  if (!bytes) return EmptyDocument();
  return ParseBytes(bytes, bytes.Size(), "Veskan::XmlSchema::NewDoc");
}

std::shared_ptr<XmlDocument> XmlSchema::DocFromFile(const char16_t* path) {
  Globals keep;
  if (IsEmptyString(path)) return NoDocument();
  std::unique_ptr<xercesc::LocalFileInputSource> source;
  try {
    source = std::make_unique<xercesc::LocalFileInputSource>(path);
  } catch (const xercesc::XMLException& failure) {
    Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::DocFromFile")
        << " path: " << path << " message: " << failure.getMessage();
    return NoDocument();
  }
  return Parse(*source, "Veskan::XmlSchema::DocFromFile");
}

bool XmlSchema::DocToFile(const std::shared_ptr<XmlDocument>& doc, const char16_t* path) {
  Globals keep;
  if (!doc || !doc->DocumentNode() || !doc->DocumentNode()->hasChildNodes()) return false;
  if (IsEmptyString(path)) return false;
  try {
    xercesc::LocalFileFormatTarget target(path);
    return SerialiseDocument(doc, target, Declaration::Always);
  } catch (const xercesc::XMLException& failure) {
    Logger::Line(Logger::Severity::Warning, "Veskan::XmlSchema::DocToFile")
        << " path: " << path << " message: " << failure.getMessage();
    return false;
  }
}

StringBuffer XmlSchema::PrintDoc(const std::shared_ptr<XmlDocument>& doc, bool declaration) {
  Globals keep;
  xercesc::MemBufFormatTarget target(InitialTargetCapacity);
  if (!SerialiseDocument(doc, target,
                         declaration ? Declaration::Always : Declaration::SerialiserDefault))
    return StringBuffer();
  return TextOf(target);
}

ByteBuffer XmlSchema::PrintDocUTF8(const std::shared_ptr<XmlDocument>& doc, bool declaration) {
  Globals keep;
  xercesc::MemBufFormatTarget target(InitialTargetCapacity);
  if (!SerialiseDocument(doc, target,
                         declaration ? Declaration::Always : Declaration::SerialiserDefault) ||
      target.getLen() > static_cast<XMLSize_t>(INT_MAX))
    return ByteBuffer();
  return ByteBuffer(target.getRawBuffer(), 0, static_cast<int>(target.getLen()));
}

StringBuffer XmlSchema::PrintElement(const xercesc::DOMNode* element, bool outer) {
  if (!element) return StringBuffer();
  Globals keep;
  xercesc::MemBufFormatTarget target(InitialTargetCapacity);
  if (outer) {
    if (!Serialise(element, target, Declaration::SerialiserDefault)) return StringBuffer();
  } else {
    for (const xercesc::DOMNode* child = element->getFirstChild(); child;
         child = child->getNextSibling())
      if (!Serialise(child, target, Declaration::SerialiserDefault)) return StringBuffer();
  }
  return TextOf(target);
}

xercesc::DOMDocument* XmlSchema::DocumentNode(const std::shared_ptr<XmlDocument>& doc) {
  return doc ? doc->DocumentNode() : nullptr;
}

xercesc::DOMElement* XmlSchema::DocumentElement(const std::shared_ptr<XmlDocument>& doc) {
  xercesc::DOMDocument* document = DocumentNode(doc);
  return document ? document->getDocumentElement() : nullptr;
}

xercesc::DOMElement* XmlSchema::DocumentElement(const xercesc::DOMNode* node) {
  xercesc::DOMDocument* document = OwnerDocument(node);
  return document ? document->getDocumentElement() : nullptr;
}

xercesc::DOMDocument* XmlSchema::OwnerDocument(const xercesc::DOMNode* node) {
  if (!node) return nullptr;
  if (node->getNodeType() == xercesc::DOMNode::DOCUMENT_NODE)
    return const_cast<xercesc::DOMDocument*>(static_cast<const xercesc::DOMDocument*>(node));
  return node->getOwnerDocument();
}

}  // namespace Veskan
