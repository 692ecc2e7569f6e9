// RDF graphs: RDF::Node, RDF::Triple, RDF::Predicate and RDF::Graph, over librdf in the process's
// one librdf world. Quizzes, questions and their recorded answers are kept in these graphs.
#ifndef VESKAN_RDFGRAPH_H
#define VESKAN_RDFGRAPH_H

#include <veskan/ByteBuffer.h>
#include <veskan/Export.h>
#include <veskan/Globals.h>
#include <veskan/RDF.h>
#include <veskan/StringBuffer.h>
#include <veskan/XPathVariables.h>
#include <veskan/XmlSchema.h>

// The conversions hand out librdf's own objects, so its declarations come along (librdf's
// nodes and statements are raptor's, which cannot be declared without raptor2.h).
#include <librdf.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace Veskan {

// One RDF term: a literal (with a language or a datatype), a URI, a blank node or a variable.
// Built from texts, it makes its librdf node on first need (MakeNode) and frees it with itself;
// adopted from librdf, it frees the node only when told it owns it.
//
// A datatype may be a full URI or a prefixed name of Namespaces::Defaults: "xs:integer" is kept
// as "http://www.w3.org/2001/XMLSchema#integer" (a "#" goes between a namespace that ends in
// neither "#" nor "/" and the local name). A literal with both a language and a datatype is the
// language-tagged literal in librdf, as in FormattedString. Variables have no librdf node.
//
// A node that holds a librdf node keeps the XML and RDF libraries up while it does (a Globals
// of its own); one of texts alone costs nothing more than its texts.
//
// Thread safety: a plain value; every librdf call is made holding RDF::worldMutex.
class VESKAN_API RDF::Node {
 public:
  class VESKAN_API Types {
   public:
    enum Enumeration { Literal = 0, Uri = 1, Blank = 2, Variable = 3 };
  };

  // The empty plain literal.
  Node();
  // A node of `type` whose value is `text` (null: empty). An empty blank node gets a fresh
  // identifier from librdf when its node is made.
  Node(const char16_t* text, Types::Enumeration type);
  Node(StringBuffer text, Types::Enumeration type);
  // The literal `value` typed `datatype` (a URI or a prefixed name, above).
  Node(const char16_t* value, const char16_t* datatype);
  // Adopts `node`, reading its type, value, language and datatype; frees it at the end when
  // `owns`. A null node is the empty literal.
  Node(librdf_node* node, bool owns);
  // Copies the texts; the copy makes its own librdf node.
  Node(const Node& other);
  Node& operator=(const Node& other);
  virtual ~Node();

  Types::Enumeration Type() const { return type_; }
  // The literal's text, the URI, the blank node's identifier or the variable's name.
  const StringBuffer& Value() const { return value_; }
  const StringBuffer& Language() const { return language_; }
  // The datatype's full URI, empty when none.
  const StringBuffer& Datatype() const { return datatype_; }
  // Sets the language of a literal (null: none); a node already made is made again.
  void SetLanguage(const char16_t* language);
  // Sets the datatype of a literal (a URI or a prefixed name; null: none), likewise.
  void SetDatatype(const char16_t* datatype);

  // The node written N-Triples-like, from the value {0}, the language {1} and the datatype {2}:
  // "\"{0}\"@{1}" (a literal with a language), "\"{0}\"^^<{1}>" (a typed literal: {1} is the
  // empty language there, so the brackets stay empty), "\"{0}\"", "<{0}>", "_:{0}", "?{0}".
  StringBuffer FormattedString() const;

  // The librdf node, made on first call; null for a variable, without a librdf world, or when
  // librdf refuses the texts. Owned by this object.
  librdf_node* MakeNode();
  operator librdf_node*() { return MakeNode(); }
  // The value.
  operator const char16_t*() const { return value_.getBuffer(); }
  // Whether the value is `value` (null: empty); type, language and datatype do not count.
  bool operator==(const char16_t* value) const;
  bool operator!=(const char16_t* value) const { return !(*this == value); }

 private:
  void Release();

  std::unique_ptr<Globals> globals_;  // while node_ is held
  librdf_node* node_ = nullptr;
  bool owns_ = false;
  Types::Enumeration type_ = Types::Literal;
  StringBuffer value_;
  StringBuffer language_;
  StringBuffer datatype_;
};

// The full URI of a predicate given as a prefixed name: "rdf:type" with Namespaces::Defaults is
// "http://www.w3.org/1999/02/22-rdf-syntax-ns#type". A name whose prefix the table lacks gives
// the local name alone; a full URI ("http://...") is kept as it is.
//
// Thread safety: a plain value.
class VESKAN_API RDF::Predicate {
 public:
  Predicate(const char16_t* prefixedName, const XPathVariables& namespaces = Namespaces::Defaults);
  operator const char16_t*() const { return text_.getBuffer(); }
  const StringBuffer& Text() const { return text_; }

 private:
  StringBuffer text_;
};

// One statement: subject, predicate and object. Built from texts, it makes its librdf statement
// on first need (MakeStatement) and frees it with itself; adopted from librdf, it frees the
// statement only when told it owns it.
//
// The last text of the constructors qualifies a literal object: a text holding ":" is its
// datatype (a URI or a prefixed name such as "xs:integer"), any other its language ("en"),
// since a language tag never holds a colon. It is ignored for other objects.
//
// Thread safety: a plain value; every librdf call is made holding RDF::worldMutex.
class VESKAN_API RDF::Triple {
 public:
  // Adopts `statement`, reading its three nodes; frees it at the end when `owns`.
  Triple(librdf_statement* statement, bool owns);
  // A statement about the URI `subject`.
  Triple(const char16_t* subject, const char16_t* predicate, const char16_t* object,
         Node::Types::Enumeration objectType, const char16_t* qualifier = nullptr);
  Triple(const char16_t* subject, Node::Types::Enumeration subjectType, const char16_t* predicate,
         const char16_t* object, Node::Types::Enumeration objectType,
         const char16_t* qualifier = nullptr);
  // Copies the nodes; the copy makes its own librdf statement.
  Triple(const Triple& other);
  Triple& operator=(const Triple& other);
  virtual ~Triple();

  const Node& Subject() const { return subject_; }
  const Node& Predicate() const { return predicate_; }
  const Node& Object() const { return object_; }

  // "S P O ." with each node's FormattedString.
  StringBuffer FormattedString() const;

  // The librdf statement, made on first call; null when a node cannot be made. Owned by this
  // object.
  librdf_statement* MakeStatement();
  operator librdf_statement*() { return MakeStatement(); }

 private:
  void Release();

  std::unique_ptr<Globals> globals_;  // while statement_ is held
  librdf_statement* statement_ = nullptr;
  bool owns_ = false;
  Node subject_;
  Node predicate_;
  Node object_;
};

// A graph of statements in memory: one librdf model over a "trees" storage of its own.
//
// Reading RDF/XML: relative references resolve against the base URI BaseUri; no file or network
// resource named by the text is ever loaded (external entities included), and a text with any
// error adds nothing: the graph is left as it was.
//
// Matching, where a text names a node: an empty or null text matches anything; a literal
// matches by its value alone (language and datatype do not count); a blank node given with its
// identifier matches that node only.
//
// Answers: the system records each answer as a node of type veskan:Answer (Namespaces::Uri::Veskan
// followed by "Answer") with veskan:question, veskan:participant, veskan:choice and
// veskan:answeredAt, and links it from its question with veskan:answer. RemoveAnswers removes
// those nodes' statements and the links to them.
//
// Thread safety: every operation holds RDF::worldMutex for its whole run, so graphs may be used
// from any thread, one operation at a time in the process.
class VESKAN_API RDF::Graph {
 public:
  // The serialisers: RDF/XML with nested descriptions and the namespaces' prefixes
  // ("rdfxml-abbrev", media type "application/rdf+xml"), plain RDF/XML ("rdfxml"), and
  // N-Triples ("ntriples"), one statement per line.
  class VESKAN_API SerializationFormats {
   public:
    enum Enumeration { RdfXmlAbbrev = 0, RdfXml = 1, NTriples = 2 };
    // librdf's name of the serialiser; null for a value outside the enumeration.
    static const char* ToName(int format);
  };

  // The base against which relative references of the texts read resolve.
  static const char16_t* const BaseUri;
  // The answer vocabulary (full URIs).
  static const char16_t* const AnswerClass;        // veskan:Answer
  static const char16_t* const AnswerOf;           // veskan:answer, question to answer
  static const char16_t* const AnswerQuestion;     // veskan:question, answer to question
  static const char16_t* const AnswerParticipant;  // veskan:participant
  static const char16_t* const AnswerChoice;       // veskan:choice
  static const char16_t* const AnswerTime;         // veskan:answeredAt

  // An empty graph with a storage of its own (named "graph." and a fresh identifier).
  Graph();
  // A new storage holding the other graph's statements.
  Graph(const Graph& other);
  Graph& operator=(const Graph& other);
  virtual ~Graph();

  // A graph read from the file at `path`: RDF/XML for the two RDF/XML formats, N-Triples for
  // NTriples. Null when the file is empty, cannot be read or does not parse.
  static std::shared_ptr<Graph> FromFile(
      const char16_t* path,
      SerializationFormats::Enumeration format = SerializationFormats::RdfXml);
  // A graph read from the RDF/XML of `document`; null when it prints empty or does not parse.
  static std::shared_ptr<Graph> FromXmlDocument(const std::shared_ptr<XmlDocument>& document);

  // Adds the statements of the UTF-8 RDF/XML in `bytes`: 1 when they were added, 0 (and the
  // graph unchanged) when the text is empty or does not parse.
  int Add(const ByteBuffer& bytes);
  // Adds or removes the triples (null ones and ones without a statement are skipped); returns
  // how many were added or removed.
  int Add(const std::vector<std::shared_ptr<Triple>>& triples);
  int Remove(const std::vector<std::shared_ptr<Triple>>& triples);
  // Removes every statement about `subject`: a URI, or a blank node written "_:id". Returns how
  // many were removed.
  int Remove(const char16_t* subject);
  // Whether every statement of the RDF/XML in `bytes` is in this graph; a blank node there
  // stands for any blank node here. False for a text without statements or that does not parse.
  bool ifContains(const ByteBuffer& bytes);
  // Removes the recorded answers (above); returns how many statements went.
  int RemoveAnswers();

  // The first statement with the subject (of `subjectType`) and the URI `predicate`; null when
  // either text is empty or nothing matches.
  std::shared_ptr<Triple> FindOneTriple(const char16_t* subject, const char16_t* predicate,
                                        Node::Types::Enumeration subjectType = Node::Types::Uri);
  // The first statement "_:b `predicate` object" where "`subject` `via` _:b" is in the graph and
  // _:b is a blank node; null when none.
  std::shared_ptr<Triple> FindOneTripleViaIntermediateBlankNode(
      const char16_t* subject, const char16_t* via, const char16_t* predicate,
      Node::Types::Enumeration subjectType = Node::Types::Uri);
  // Appends every statement matching the pattern (above) to `out`; returns how many.
  int FindTriples(std::vector<std::shared_ptr<Triple>>& out, const char16_t* subject,
                  Node::Types::Enumeration subjectType, const char16_t* predicate,
                  const char16_t* object, Node::Types::Enumeration objectType);
  // The statements about a subject, and about every blank node they reach, recursively (its
  // concise bounded description): in a new graph, or added to `into` (returning how many).
  std::shared_ptr<Graph> Describe(const char16_t* subject,
                                  Node::Types::Enumeration subjectType = Node::Types::Uri);
  std::shared_ptr<Graph> Describe(const StringList& subjects,
                                  const std::vector<Node::Types::Enumeration>& types);
  int Describe(const StringList& subjects, const std::vector<Node::Types::Enumeration>& types,
               std::shared_ptr<Graph>& into);

  // The number of statements.
  int Size();

  // The graph in `format` (a SerializationFormats value) with the table's prefixes declared
  // (RDF/XML); empty when the format is unknown or librdf fails.
  StringBuffer Serialize(int format, const XPathVariables& namespaces = Namespaces::Defaults);
  // The same written to `file` (N-Triples as they are); false when nothing could be written.
  bool Serialize(FILE* file, SerializationFormats::Enumeration format,
                 const XPathVariables& namespaces = Namespaces::Defaults);

  operator librdf_model*() { return model_; }
  operator librdf_storage*() { return storage_; }

 private:
  void CopyInitialization(const Graph& other);
  void Create();
  void Release();

  Globals globals_;
  librdf_storage* storage_ = nullptr;
  librdf_model* model_ = nullptr;
};

}  // namespace Veskan

#endif
