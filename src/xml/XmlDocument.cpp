// XmlDocument: the owning handle of one DOM tree.
#include <veskan/XmlSchema.h>

namespace Veskan {

XmlDocument::XmlDocument(xercesc::DOMDocument* document, xercesc::DOMLSParser* parser, bool owns)
    : document_(document), parser_(parser), owns_(owns) {}

// A view takes a count of its own: Globals' copy constructor counts nothing.
XmlDocument::XmlDocument(const XmlDocument& other)
    : libraries_(), document_(other.document_), parser_(other.parser_), owns_(false) {}

XmlDocument& XmlDocument::operator=(const XmlDocument& other) {
  if (&other == this) return *this;
  Free();
  document_ = other.document_;
  parser_ = other.parser_;
  owns_ = false;
  return *this;
}

XmlDocument::~XmlDocument() {
  Free();
}

void XmlDocument::Free() {
  if (owns_) {
    // A parser owns the document it parsed and frees it with itself.
    if (parser_)
      parser_->release();
    else if (document_)
      document_->release();
  }
  document_ = nullptr;
  parser_ = nullptr;
  owns_ = false;
}

}  // namespace Veskan
