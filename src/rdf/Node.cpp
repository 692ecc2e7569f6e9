// RDF::Node and RDF::Predicate: terms as texts, and their librdf nodes.
#include <veskan/RDFGraph.h>

#include "rdf/Redland.h"

namespace Veskan {

using Detail::Bytes;
using Detail::FromUtf8;

namespace {

// Whether `text`, whose first colon is at `colon`, is a full URI ("http://...") rather than a
// prefixed name.
bool IsFullUri(const StringBuffer& text, int colon) {
  return colon > 0 && text.indexOf(u"//") == colon + 1;
}

// A datatype as a full URI: "xs:integer" becomes XML Schema's "...XMLSchema#integer".
StringBuffer ExpandedDatatype(const char16_t* datatype) {
  StringBuffer text(datatype ? datatype : u"");
  const int colon = text.indexOf(u':');
  if (colon <= 0 || IsFullUri(text, colon)) return text;
  StringBuffer prefix = text.tempSubString(0, colon);
  if (!Namespaces::Defaults.Contains(prefix.getTerminatedBuffer())) return text;
  StringBuffer uri = Namespaces::Defaults.GetValue(prefix.getTerminatedBuffer());
  if (!uri.endsWith(u"#") && !uri.endsWith(u"/")) uri += u'#';
  return uri + text.tempSubString(colon + 1);
}

}  // namespace

RDF::Node::Node() = default;

RDF::Node::Node(const char16_t* text, Types::Enumeration type)
    : type_(type), value_(text ? text : u"") {}

RDF::Node::Node(StringBuffer text, Types::Enumeration type)
    : type_(type), value_(std::move(text)) {}

RDF::Node::Node(const char16_t* value, const char16_t* datatype)
    : type_(Types::Literal), value_(value ? value : u""), datatype_(ExpandedDatatype(datatype)) {}

RDF::Node::Node(librdf_node* node, bool owns) : node_(node), owns_(owns && node) {
  if (!node) return;
  globals_ = std::make_unique<Globals>();
  Detail::WorldLock lock = Detail::LockWorld();
  if (librdf_node_is_resource(node)) {
    type_ = Types::Uri;
    value_ = FromUtf8(librdf_uri_as_string(librdf_node_get_uri(node)));
  } else if (librdf_node_is_blank(node)) {
    type_ = Types::Blank;
    value_ = FromUtf8(librdf_node_get_blank_identifier(node));
  } else {
    type_ = Types::Literal;
    size_t length = 0;
    const unsigned char* text = librdf_node_get_literal_value_as_counted_string(node, &length);
    value_ = FromUtf8(text, length);
    language_ = FromUtf8(
        reinterpret_cast<const unsigned char*>(librdf_node_get_literal_value_language(node)));
    if (librdf_uri* datatype = librdf_node_get_literal_value_datatype_uri(node))
      datatype_ = FromUtf8(librdf_uri_as_string(datatype));
  }
}

RDF::Node::Node(const Node& other)
    : type_(other.type_),
      value_(other.value_),
      language_(other.language_),
      datatype_(other.datatype_) {}

RDF::Node& RDF::Node::operator=(const Node& other) {
  if (this == &other) return *this;
  Release();
  type_ = other.type_;
  value_ = other.value_;
  language_ = other.language_;
  datatype_ = other.datatype_;
  return *this;
}

RDF::Node::~Node() {
  Release();
}

void RDF::Node::Release() {
  if (node_ && owns_) {
    Detail::WorldLock lock = Detail::LockWorld();
    librdf_free_node(node_);
  }
  node_ = nullptr;
  owns_ = false;
  globals_.reset();
}

void RDF::Node::SetLanguage(const char16_t* language) {
  Release();
  language_ = StringBuffer(language ? language : u"");
}

void RDF::Node::SetDatatype(const char16_t* datatype) {
  Release();
  datatype_ = ExpandedDatatype(datatype);
}

StringBuffer RDF::Node::FormattedString() const {
  const char16_t* pattern = u"\"{0}\"";
  switch (type_) {
    case Types::Literal:
      if (!language_.isEmpty())
        pattern = u"\"{0}\"@{1}";
      else if (!datatype_.isEmpty())
        pattern = u"\"{0}\"^^<{1}>";  // {1} is the (empty) language: kept as the system prints it
      break;
    case Types::Uri:
      pattern = u"<{0}>";
      break;
    case Types::Blank:
      pattern = u"_:{0}";
      break;
    case Types::Variable:
      pattern = u"?{0}";
      break;
  }
  return MessageFormat(pattern, {icu::Formattable(value_), icu::Formattable(language_),
                                 icu::Formattable(datatype_)});
}

librdf_node* RDF::Node::MakeNode() {
  if (node_) return node_;
  auto globals = std::make_unique<Globals>();  // the libraries stay up while the node lives
  Detail::WorldLock lock = Detail::LockWorld();
  if (!RDF::world || type_ == Types::Variable) return nullptr;
  const std::string value = value_.ToUTF8();
  switch (type_) {
    case Types::Uri:
      node_ = librdf_new_node_from_uri_string(RDF::world, Bytes(value));
      break;
    case Types::Blank:
      node_ =
          librdf_new_node_from_blank_identifier(RDF::world, value.empty() ? nullptr : Bytes(value));
      // A fresh identifier is this node's from now on.
      if (node_ && value.empty()) value_ = FromUtf8(librdf_node_get_blank_identifier(node_));
      break;
    default: {
      const std::string language = language_.ToUTF8();
      Detail::UriPtr datatype;
      if (language.empty() && !datatype_.isEmpty()) {
        datatype = Detail::NewUri(datatype_.ToUTF8());
        if (!datatype) return nullptr;
      }
      node_ = librdf_new_node_from_typed_counted_literal(
          RDF::world, Bytes(value), value.size(), language.empty() ? nullptr : language.c_str(),
          language.size(), datatype.get());
      break;
    }
  }
  owns_ = node_ != nullptr;
  if (node_) globals_ = std::move(globals);
  return node_;
}

bool RDF::Node::operator==(const char16_t* value) const {
  return value_ == StringBuffer(value ? value : u"");
}

RDF::Predicate::Predicate(const char16_t* prefixedName, const XPathVariables& namespaces) {
  StringBuffer name(prefixedName ? prefixedName : u"");
  const int colon = name.indexOf(u':');
  if (IsFullUri(name, colon)) {
    text_ = name;  // a full URI already
    return;
  }
  QName qualified(name.getTerminatedBuffer(), namespaces);
  text_ = qualified.NamespaceUri + qualified.LocalName;
}

}  // namespace Veskan
