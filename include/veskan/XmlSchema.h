// XML documents: the owning handle XmlDocument, the namespace table Namespaces, qualified names
// (QName), the plain node lists, and XmlSchema, the static operations that parse, print,
// navigate, build and edit Xerces-C DOM trees.
//
// Documents are shared through std::shared_ptr<XmlDocument>. Elements, attributes and text nodes
// are handed around as Xerces DOM pointers owned by their document: they live as long as it does.
// All text is UTF-16. A null node or document given to an operation gives null, false, an empty
// list or an empty text; none of them throws for it.
#ifndef VESKAN_XMLSCHEMA_H
#define VESKAN_XMLSCHEMA_H

#include <veskan/ByteBuffer.h>
#include <veskan/Export.h>
#include <veskan/Globals.h>
#include <veskan/StringBuffer.h>
#include <veskan/Vocabulary.h>
#include <veskan/XPathVariables.h>

#include <xercesc/dom/DOM.hpp>

#include <map>
#include <memory>
#include <vector>

namespace Veskan {

class Message;
class XPathExpression;

// One DOM document and, for a parsed one, the parser that built it.
//
// An owning handle frees the tree when destroyed: by releasing the parser (which owns the
// document it parsed) or, for a document built in memory, the document itself. Keep the handle
// in one shared pointer. A copy is a view: it shows the same tree and never frees it, so it must
// not outlive the handle that owns the tree.
//
// Every handle, a view included, holds a Globals for as long as it lives: the libraries its tree
// needs, down to the freeing of the tree, stay up while it does, whichever thread keeps it.
//
// Thread safety: a document and its nodes are used by one thread at a time.
class VESKAN_API XmlDocument {
 public:
  // Takes the three values as they are; `document` may be null (a failed parse).
  XmlDocument(xercesc::DOMDocument* document, xercesc::DOMLSParser* parser, bool owns);
  // A view of the same tree: `owns` is false in the copy.
  XmlDocument(const XmlDocument& other);
  // Frees what this handle owned, then becomes a view of `other`'s tree.
  XmlDocument& operator=(const XmlDocument& other);
  virtual ~XmlDocument();

  xercesc::DOMDocument* DocumentNode() const { return document_; }
  operator xercesc::DOMDocument*() const { return document_; }
  xercesc::DOMLSParser* Parser() const { return parser_; }
  bool Owns() const { return owns_; }

 private:
  void Free();

  Globals libraries_;  // destroyed last, after the tree is freed
  xercesc::DOMDocument* document_;
  xercesc::DOMLSParser* parser_;
  bool owns_;
};

// The namespaces the system's documents use: their usual prefixes and their URIs.
//
// Thread safety: constants; Defaults is filled before main and only read afterwards.
class VESKAN_API Namespaces {
 public:
  class VESKAN_API Prefix {
   public:
    static const char16_t* const Xml;             // "xml"
    static const char16_t* const XLink;           // "xlink"
    static const char16_t* const RDF;             // "rdf"
    static const char16_t* const DC;              // "dc"
    static const char16_t* const vCard;           // "vCard"
    static const char16_t* const Sparql;          // "sparql"
    static const char16_t* const Veskan;          // "veskan"
    static const char16_t* const Vantrel;         // "vantrel"
    static const char16_t* const XPathFunctions;  // "fn"
    static const char16_t* const XmlSchema;       // "xs"
  };
  class VESKAN_API Uri {
   public:
    static const char16_t* const Xml;             // "http://www.w3.org/XML/1998/namespace"
    static const char16_t* const XLink;           // "http://www.w3.org/1999/xlink"
    static const char16_t* const RDF;             // "http://www.w3.org/1999/02/22-rdf-syntax-ns#"
    static const char16_t* const DC;              // "http://purl.org/dc/elements/1.1/"
    static const char16_t* const vCard;           // "http://www.w3.org/2001/vcard-rdf/3.0#"
    static const char16_t* const Sparql;          // "http://www.w3.org/2005/sparql-results#"
    static const char16_t* const Veskan;          // "http://www.calvorco.com/2008/veskan/"
    static const char16_t* const Vantrel;         // "http://www.calvorco.com/2008/vantrel/"
    static const char16_t* const XPathFunctions;  // "http://www.w3.org/2005/xpath-functions"
    static const char16_t* const XmlSchema;       // "http://www.w3.org/2001/XMLSchema"
  };
  // Every prefix above mapped to its URI, in the order above.
  static const XPathVariables Defaults;
};

// A qualified name: prefix, local name and namespace URI. Two names are equal when their local
// names and namespace URIs are (the prefix does not count).
//
// Thread safety: a plain value.
class VESKAN_API QName {
 public:
  QName() = default;
  // Null texts are empty.
  QName(const char16_t* prefix, const char16_t* localName, const char16_t* namespaceUri);
  // `qualifiedName` split at its first colon into prefix and local name; the URI as given.
  QName(const char16_t* qualifiedName, const char16_t* namespaceUri);
  // `qualifiedName` split as above; the URI is the table's entry for the prefix (empty when the
  // table has none), and for a name without prefix the entry for the empty prefix if present.
  QName(const char16_t* qualifiedName, const XPathVariables& namespaces);
  // The node's prefix, local name (its node name when it has none) and namespace URI; a null
  // node gives the empty name.
  explicit QName(const xercesc::DOMNode* node);

  bool operator==(const QName& other) const;
  bool operator!=(const QName& other) const { return !(*this == other); }
  bool operator==(const xercesc::DOMNode* node) const;
  bool operator!=(const xercesc::DOMNode* node) const { return !(*this == node); }

  // "prefix:local", or the local name alone when there is no prefix.
  StringBuffer QualifiedName() const;

  StringBuffer Prefix;
  StringBuffer LocalName;
  StringBuffer NamespaceUri;
};

// An ordered list of DOM nodes that does not own them. Indexing never fails: a bad index gives
// null, and RemoveAt with a bad index changes nothing.
//
// Thread safety: a plain value; guard a shared list yourself.
class VESKAN_API XmlNodeList {
 public:
  XmlNodeList() = default;
  XmlNodeList(const XmlNodeList& other) = default;
  XmlNodeList& operator=(const XmlNodeList& other) = default;
  virtual ~XmlNodeList();

  int Count() const { return count_; }
  // Appends `node`; returns its index.
  int Add(xercesc::DOMNode* node);
  xercesc::DOMNode* operator[](int index) const;
  void RemoveAt(int index);
  void RemoveAll();
  // Keeps only the nodes whose XmlNodeType::Of is `type`, in their order.
  void FilterToType(XmlNodeType::Enumeration type);

  std::vector<xercesc::DOMNode*>::const_iterator begin() const { return nodes_.begin(); }
  std::vector<xercesc::DOMNode*>::const_iterator end() const { return nodes_.end(); }

 private:
  void Recount() { count_ = static_cast<int>(nodes_.size()); }

  std::vector<xercesc::DOMNode*> nodes_;
  int count_ = 0;
};

// An ordered list of DOM elements that does not own them; indexing as for XmlNodeList.
//
// Thread safety: a plain value; guard a shared list yourself.
class VESKAN_API XmlElementList {
 public:
  XmlElementList() = default;
  XmlElementList(const XmlElementList& other) = default;
  XmlElementList& operator=(const XmlElementList& other) = default;
  virtual ~XmlElementList();

  int Count() const { return count_; }
  int Add(xercesc::DOMElement* element);
  // Inserts `element` before the entry at `index` (an index below 0 counts as 0, one above the
  // count as the count, which appends); returns the index it went to.
  int InsertAt(int index, xercesc::DOMElement* element);
  xercesc::DOMElement* operator[](int index) const;
  void RemoveAt(int index);
  void RemoveAll();
  // Appends every element of this list to `list`.
  void CopyTo(XmlElementList& list) const;

  std::vector<xercesc::DOMElement*>::const_iterator begin() const { return elements_.begin(); }
  std::vector<xercesc::DOMElement*>::const_iterator end() const { return elements_.end(); }

 private:
  void Recount() { count_ = static_cast<int>(elements_.size()); }

  std::vector<xercesc::DOMElement*> elements_;
  int count_ = 0;
};

// An ordered list of DOM attributes that does not own them. Keep indexes within the count; a bad
// index gives null all the same.
//
// Thread safety: a plain value; guard a shared list yourself.
class VESKAN_API XmlAttributeList {
 public:
  XmlAttributeList() = default;
  XmlAttributeList(const XmlAttributeList& other) = default;
  XmlAttributeList& operator=(const XmlAttributeList& other) = default;
  virtual ~XmlAttributeList();

  int Count() const { return count_; }
  int Add(xercesc::DOMAttr* attribute);
  xercesc::DOMAttr* operator[](int index) const;
  void RemoveAt(int index);
  void RemoveAll();

  std::vector<xercesc::DOMAttr*>::const_iterator begin() const { return attributes_.begin(); }
  std::vector<xercesc::DOMAttr*>::const_iterator end() const { return attributes_.end(); }

 private:
  void Recount() { count_ = static_cast<int>(attributes_.size()); }

  std::vector<xercesc::DOMAttr*> attributes_;
  int count_ = 0;
};

// Elements grouped by an attribute value, in list order within each group.
using XmlElementMap = std::map<StringBuffer, std::shared_ptr<XmlElementList>>;

// Static operations on DOM trees; the class holds no state.
//
// Names given as `name` are qualified names ("prefix:local" or "local"). Where an operation takes
// a namespace URI, the name's local part is matched with that URI; where it takes a namespace
// table (a prefix-to-URI XPathVariables such as Namespaces::Defaults), the prefix is looked up in
// the table. An attribute name without prefix is always in no namespace.
//
// A path is a sequence of element steps separated by slashes. A path that begins with a slash
// starts at the document; the step "." stays where it is and ".." goes to the parent; empty steps
// are skipped.
//
// Memory: a Xerces document never hands memory back before it is freed as a whole. Reading through
// these operations takes none of it, and editing values (SetAttribute on an existing attribute,
// SetTextContent, SetCDATA) reuses what the replaced nodes held, so a document kept open for a
// long time stays the same size while it is read and its values change. Nodes that an operation
// detaches and hands to the caller are the caller's to put back or to free (see RemoveChild).
// Every new element takes memory that freeing it gives back only in part (Xerces keeps its
// attribute tables): a long-lived document should change values rather than add and remove
// elements without end.
//
// Thread safety: the operations lock nothing; a document and its nodes are used by one thread at a
// time. Operations on different documents may run on different threads.
class VESKAN_API XmlSchema {
 public:
  XmlSchema() = delete;

  // ---- Documents -------------------------------------------------------------------------------

  // Null or empty: a new empty document (owned, no parser). Otherwise the text, as UTF-8, parsed
  // by a namespace-aware parser. A text that does not parse gives an owned handle whose document
  // is null; the parser's messages go to the Logger (Warning), and no partial tree is ever
  // returned. Documents with a document type declaration are refused (so no entity of a DTD is
  // ever expanded and nothing outside the text is ever loaded), and so are documents whose
  // elements nest more than 512 deep (Xerces' serialiser and copies recurse per level).
  // Exceptions that Xerces itself throws while parsing (OutOfMemoryException) reach the caller.
  static std::shared_ptr<XmlDocument> NewDoc(const char16_t* text = nullptr);
  // As above for bytes that hold an encoded document (UTF-8 unless its declaration says
  // otherwise); no bytes give a new empty document.
  static std::shared_ptr<XmlDocument> NewDoc(const ByteBuffer& bytes);
  // As above for the file at `path`; a file that cannot be read gives a null document.
  static std::shared_ptr<XmlDocument> DocFromFile(const char16_t* path);
  // Writes the document, with its XML declaration, to the file at `path`; false when the document
  // is null or empty or the file cannot be written.
  static bool DocToFile(const std::shared_ptr<XmlDocument>& doc, const char16_t* path);

  // The document as pretty-printed UTF-16 text without byte-order mark, marked XML version "1.0"
  // and standalone. `declaration` true asks for the XML declaration; false leaves it to the
  // serialiser, which writes one as well. Empty for a null or empty document.
  static StringBuffer PrintDoc(const std::shared_ptr<XmlDocument>& doc, bool declaration = false);
  // As PrintDoc, as UTF-8 bytes.
  static ByteBuffer PrintDocUTF8(const std::shared_ptr<XmlDocument>& doc, bool declaration = false);
  // Answers the exchange with the document: the reply's content becomes a Content of it and the
  // reply's "Content-Type" "text/xml" (a reply body is made when the message has none). Takes
  // the message's lock; does nothing for a null message. Include <veskan/Message.h> to call it.
  static void RespondWithXml(const std::shared_ptr<Message>& message,
                             const std::shared_ptr<XmlDocument>& doc);
  // One node's subtree as pretty-printed text without declaration. With `outer` true the node
  // itself is printed; with false only its children, one after the other.
  static StringBuffer PrintElement(const xercesc::DOMNode* element, bool outer = true);

  static xercesc::DOMDocument* DocumentNode(const std::shared_ptr<XmlDocument>& doc);
  static xercesc::DOMElement* DocumentElement(const std::shared_ptr<XmlDocument>& doc);
  static xercesc::DOMElement* DocumentElement(const xercesc::DOMNode* node);
  // The node itself for a document node, else the document that owns it.
  static xercesc::DOMDocument* OwnerDocument(const xercesc::DOMNode* node);

  // ---- Navigation (null when there is nothing)
  // ----------------------------------------------------

  static xercesc::DOMNode* Parent(const xercesc::DOMNode* node);
  static xercesc::DOMNode* FirstChild(const xercesc::DOMNode* node);
  static xercesc::DOMNode* LastChild(const xercesc::DOMNode* node);
  static xercesc::DOMNode* NextSibling(const xercesc::DOMNode* node);
  static xercesc::DOMNode* PreviousSibling(const xercesc::DOMNode* node);
  // The same walks over element nodes only.
  static xercesc::DOMElement* FirstChildElement(const xercesc::DOMNode* node);
  static xercesc::DOMElement* LastChildElement(const xercesc::DOMNode* node);
  static xercesc::DOMElement* NextElement(const xercesc::DOMNode* node);
  static xercesc::DOMElement* PreviousElement(const xercesc::DOMNode* node);
  static bool HasChildren(const xercesc::DOMNode* node);
  static XmlNodeList GetAllChildNodes(const xercesc::DOMNode* node);
  static XmlElementList GetAllChildElements(const xercesc::DOMNode* node);
  // Every element below `node` (an element or a document), in document order, whose name equals
  // `name` qualified with `namespaceUri` (null: no namespace) or through `namespaces`.
  static XmlElementList GetElementsByTagName(const xercesc::DOMNode* node, const char16_t* name,
                                             const char16_t* namespaceUri);
  static XmlElementList GetElementsByTagName(const xercesc::DOMNode* node, const char16_t* name,
                                             const XPathVariables& namespaces);
  // The node itself when it is of that kind, else null.
  static xercesc::DOMElement* NodeAsElement(xercesc::DOMNode* node);
  static xercesc::DOMAttr* NodeAsAttribute(xercesc::DOMNode* node);
  static xercesc::DOMText* NodeAsText(xercesc::DOMNode* node);
  static xercesc::DOMDocument* NodeAsDocument(xercesc::DOMNode* node);

  // ---- Path lookup and creation
  // ------------------------------------------------------------------

  // The first element that completes `path` from `node`. Each named step takes the child elements
  // that equal it, first to last; when the rest of the path fails below one, the next is tried.
  // Null when no element completes the path (a path that ends on the document gives null too).
  static xercesc::DOMElement* FindElement(xercesc::DOMNode* node, const char16_t* path,
                                          const char16_t* namespaceUri);
  static xercesc::DOMElement* FindElement(xercesc::DOMNode* node, const char16_t* path,
                                          const XPathVariables& namespaces = Namespaces::Defaults);
  static xercesc::DOMElement* FindElement(const std::shared_ptr<XmlDocument>& doc,
                                          const char16_t* path, const char16_t* namespaceUri);
  static xercesc::DOMElement* FindElement(const std::shared_ptr<XmlDocument>& doc,
                                          const char16_t* path,
                                          const XPathVariables& namespaces = Namespaces::Defaults);

  // FindElement, and when it finds nothing CreateElement(..., true).
  static xercesc::DOMElement* GetElement(xercesc::DOMNode* node, const char16_t* path,
                                         const char16_t* namespaceUri);
  static xercesc::DOMElement* GetElement(xercesc::DOMNode* node, const char16_t* path,
                                         const XPathVariables& namespaces = Namespaces::Defaults);
  static xercesc::DOMElement* GetElement(const std::shared_ptr<XmlDocument>& doc,
                                         const char16_t* path, const char16_t* namespaceUri);
  static xercesc::DOMElement* GetElement(const std::shared_ptr<XmlDocument>& doc,
                                         const char16_t* path,
                                         const XPathVariables& namespaces = Namespaces::Defaults);

  // Creates the elements of `path` below `node` and returns the last one. With `reuse` true a
  // step that already has a matching child element walks into the first such child, so only the
  // missing rest of the path is created; with false every named step creates a new element,
  // appended to the current one. A name that the DOM refuses (a bad character, a second document
  // element, a prefix without namespace is dropped) gives null; elements created before that
  // step stay.
  static xercesc::DOMElement* CreateElement(xercesc::DOMNode* node, const char16_t* path,
                                            const char16_t* namespaceUri, bool reuse);
  static xercesc::DOMElement* CreateElement(xercesc::DOMNode* node, const char16_t* path,
                                            const XPathVariables& namespaces, bool reuse);
  static xercesc::DOMElement* CreateElement(const std::shared_ptr<XmlDocument>& doc,
                                            const char16_t* path, const char16_t* namespaceUri,
                                            bool reuse);
  static xercesc::DOMElement* CreateElement(const std::shared_ptr<XmlDocument>& doc,
                                            const char16_t* path, const XPathVariables& namespaces,
                                            bool reuse);

  // One new element named `name` in `namespaceUri`, inserted into `parent` before `before` (null:
  // appended). Null when the DOM refuses it.
  static xercesc::DOMElement* InsertNewElement(xercesc::DOMNode* parent, const char16_t* name,
                                               const char16_t* namespaceUri,
                                               xercesc::DOMNode* before = nullptr);

  // The first element completing `path` from `node` whose attribute `attribute` is `value`.
  static xercesc::DOMElement* FindElementWithAttributeValue(
      xercesc::DOMNode* node, const char16_t* path, const char16_t* attribute,
      const char16_t* value, const XPathVariables& namespaces = Namespaces::Defaults);

  // The first element, anywhere in the node's document, whose "xml:id" attribute is `id`; null
  // when there is none.
  static xercesc::DOMElement* GetElementById(xercesc::DOMNode* node, const char16_t* id);
  static xercesc::DOMElement* GetElementById(const std::shared_ptr<XmlDocument>& doc,
                                             const char16_t* id);

  // ---- Attributes and text
  // -----------------------------------------------------------------------

  // `fallback` (null: empty) for a null node and for an element or document none of whose direct
  // children is text or CDATA; otherwise the node's whole DOM text content (comments and
  // processing instructions left out), read without taking memory from the document.
  static StringBuffer GetTextContent(const xercesc::DOMNode* node,
                                     const char16_t* fallback = nullptr);
  // The attribute `name` in `namespaceUri` (null: the attribute whose node name is `name`).
  static xercesc::DOMAttr* GetAttributeNode(const xercesc::DOMElement* element,
                                            const char16_t* name,
                                            const char16_t* namespaceUri = nullptr);
  // The attribute's value, or `fallback` (null: empty) when there is no such attribute.
  static StringBuffer GetAttribute(const xercesc::DOMElement* element, const char16_t* name,
                                   const char16_t* namespaceUri = nullptr,
                                   const char16_t* fallback = nullptr);
  static bool HasAttribute(const xercesc::DOMElement* element, const char16_t* name,
                           const char16_t* namespaceUri = nullptr);
  // Creates the attribute, or gives an existing one of that name the new value (the same node,
  // which stays valid), and returns it; null `value` is empty. Given with another prefix than the
  // existing one has, the attribute is replaced by a new node and the old one is left detached.
  // Without a namespace URI a prefixed name takes the URI its prefix is bound to where the element
  // stands ("xml" and "xmlns" are bound by definition). Null for a prefix bound nowhere and when
  // the DOM refuses the name.
  static xercesc::DOMAttr* SetAttribute(xercesc::DOMElement* element, const char16_t* name,
                                        const char16_t* value,
                                        const char16_t* namespaceUri = nullptr);
  // Sets the attribute on every element of the list; returns how many took it.
  static int SetAttribute(const XmlElementList& elements, const char16_t* name,
                          const char16_t* value, const char16_t* namespaceUri = nullptr);
  static XmlAttributeList GetAttributes(const xercesc::DOMElement* element);
  // Replaces the node's content with `text` (null: empty); a null node is ignored. The old children
  // of an element are freed: pointers to them are no longer valid.
  static void SetTextContent(xercesc::DOMNode* node, const char16_t* text);
  // Appends a new text node to `element` and returns it.
  static xercesc::DOMText* CreateText(xercesc::DOMElement* element, const char16_t* text);
  // Replaces the element's content with one CDATA section holding `text` and returns it. The old
  // children are freed: pointers to them are no longer valid.
  static xercesc::DOMCDATASection* SetCDATA(xercesc::DOMElement* element, const char16_t* text);
  // As above for `length` bytes of UTF-8; bytes that are not UTF-8 change nothing and give null.
  static xercesc::DOMCDATASection* SetCDATA(xercesc::DOMElement* element, const char* bytes,
                                            int length);
  // The element's CDATA sections, in order, as UTF-8 bytes.
  static ByteBuffer GetCDATA(const xercesc::DOMElement* element);

  // ---- Editing
  // ------------------------------------------------------------------------------------- A child
  // that belongs to another document is imported (deeply) first; these return the node that ends up
  // in the tree, or null when the DOM refuses the change.

  static xercesc::DOMNode* AppendChild(xercesc::DOMNode* parent, xercesc::DOMNode* child);
  static xercesc::DOMNode* InsertChild(xercesc::DOMNode* parent, xercesc::DOMNode* child,
                                       xercesc::DOMNode* before);
  // Puts `replacement` where `old` was. `old` is detached and is then the caller's, as for
  // RemoveChild.
  static xercesc::DOMNode* ReplaceChild(xercesc::DOMNode* old, xercesc::DOMNode* replacement);
  // Detaches `node` from its parent and returns it. The detached node (with everything below it)
  // is the caller's: insert it again, or free it with its release() once nothing uses it. Left
  // alone it stays in its document's memory, unused, until the document is freed.
  static xercesc::DOMNode* RemoveChild(xercesc::DOMNode* node);
  // Removes and frees every child and attribute: pointers to them are no longer valid.
  static void RemoveAllChildrenAndAttributes(xercesc::DOMElement* element);
  // The node renamed (Xerces may hand back the same node); null for a name that is not a
  // qualified name and when the DOM refuses it.
  static xercesc::DOMNode* RenameNode(xercesc::DOMNode* node, const char16_t* namespaceUri,
                                      const char16_t* qualifiedName);
  // A deep copy of `element` in `doc`'s document; it becomes the document element when the
  // document has none, and is left unattached otherwise.
  static xercesc::DOMElement* Import(const std::shared_ptr<XmlDocument>& doc,
                                     const xercesc::DOMElement* element);
  // A deep copy of `element` in `target`'s document, appended to `target`.
  static xercesc::DOMElement* Import(xercesc::DOMElement* target,
                                     const xercesc::DOMElement* element);
  // Import for every element of the list; the copies, in order.
  static XmlElementList Import(const std::shared_ptr<XmlDocument>& doc,
                               const XmlElementList& elements);
  static XmlElementList Import(xercesc::DOMElement* target, const XmlElementList& elements);

  // ---- Lists
  // -----------------------------------------------------------------------------------------

  // Stable sorts in place. `direction` takes the SortMethods flags: ascending by the user's
  // locale with case and punctuation ignored by default; Exact compares code units, Numeric the
  // values of ParseDouble; Descending reverses the order.
  static void SortElementsByAttributeValue(XmlElementList& elements, const char16_t* attribute,
                                           const char16_t* namespaceUri = nullptr,
                                           int direction = SortMethods::Ascending);
  static void SortElementsByTextContent(XmlElementList& elements,
                                        int direction = SortMethods::Ascending);
  // Adds every element to the group of its attribute's value (the empty text when it has none),
  // keeping list order within a group.
  static void MapElementsByAttributeValue(const XmlElementList& elements, const char16_t* attribute,
                                          XmlElementMap& map,
                                          const XPathVariables& namespaces = Namespaces::Defaults);

  // The same for the elements an expression selected (other nodes are left out).
  static void MapElementsByAttributeValue(const XPathExpression& expression,
                                          const char16_t* attribute, XmlElementMap& map,
                                          const XPathVariables& namespaces = Namespaces::Defaults);

  // The elements in the order of one presentation of a quiz, the same for the same seed text on
  // every machine. Markers are child elements named "veskan:randomization" (the kind),
  // "veskan:pageref" and "veskan:pageposition":
  // - "...randomization#may-omit": one draw of the sequence (NextInteger(5)); 0 leaves the
  //   element out, otherwise it is shuffled like an unmarked one;
  // - "...randomization#must-include-fixed-position": keeps its index in the input list;
  // - "...randomization#must-include-group-with-page" (not on the first element): follows the
  //   page element whose "rdf:about" is its page reference ("page." followed by the reference
  //   matches too), ordered among that page's group by the number in "veskan:pageposition"; put
  //   at the end when that page is not in the result.
  // Unmarked elements and the first element are shuffled by one GetRandomSequence permutation.
  // The input list is left as it is.
  static XmlElementList Randomize(const XmlElementList& elements, const char16_t* seed);
};

}  // namespace Veskan

#endif
