// RDF::Graph: a librdf model over a storage of its own; reading, matching and writing.
#include <veskan/RDFGraph.h>

#include <veskan/Logger.h>

#include "rdf/RdfXmlScreen.h"
#include "rdf/Redland.h"

#include <set>
#include <string>

namespace Veskan {

using Detail::Bytes;
using Detail::FromUtf8;
using Detail::LockWorld;
using Detail::WorldLock;

#define VESKAN_RDF_NS u"http://www.calvorco.com/2008/veskan/"
const char16_t* const RDF::Graph::BaseUri = VESKAN_RDF_NS u"baseUri/";
const char16_t* const RDF::Graph::AnswerClass = VESKAN_RDF_NS u"Answer";
const char16_t* const RDF::Graph::AnswerOf = VESKAN_RDF_NS u"answer";
const char16_t* const RDF::Graph::AnswerQuestion = VESKAN_RDF_NS u"question";
const char16_t* const RDF::Graph::AnswerParticipant = VESKAN_RDF_NS u"participant";
const char16_t* const RDF::Graph::AnswerChoice = VESKAN_RDF_NS u"choice";
const char16_t* const RDF::Graph::AnswerTime = VESKAN_RDF_NS u"answeredAt";
#undef VESKAN_RDF_NS

namespace {

const char* const kFeaturePrefix = "http://feature.librdf.org/raptor-";

// A node of `type` for `text`, or null for an empty text (a wildcard in a pattern). A literal
// pattern is a wildcard too: literals are matched by value afterwards.
Detail::NodePtr PatternNode(const char16_t* text, RDF::Node::Types::Enumeration type) {
  if (!text || !*text || type == RDF::Node::Types::Literal) return nullptr;
  RDF::Node node(text, type);
  librdf_node* made = node.MakeNode();
  return Detail::NodePtr(made ? librdf_new_node_from_node(made) : nullptr);
}

// librdf answers "contained" with any non-zero value (-1 with this version's storages); the
// positive "illegal statement" cannot arise from the complete statements given here.
bool Contains(librdf_model* model, librdf_statement* statement) {
  return librdf_model_contains_statement(model, statement) != 0;
}

bool LiteralMatches(librdf_node* node, const StringBuffer& value) {
  if (!librdf_node_is_literal(node)) return false;
  size_t length = 0;
  const unsigned char* text = librdf_node_get_literal_value_as_counted_string(node, &length);
  return FromUtf8(text, length) == value;
}

// Turns one raptor option of `parser` on or off.
void SetParserOption(librdf_parser* parser, const char* name, bool on) {
  Detail::UriPtr feature = Detail::NewUri(std::string(kFeaturePrefix) + name);
  Detail::NodePtr value(
      librdf_new_node_from_literal(RDF::world, Bytes(on ? "1" : "0"), nullptr, 0));
  if (feature && value) librdf_parser_set_feature(parser, feature.get(), value.get());
}

// The statements of `bytes` in `syntax` (null: RDF/XML) added to `model`; false on any error,
// in which case some may have been added.
bool ParseInto(librdf_model* model, const unsigned char* bytes, std::size_t length,
               const char* syntax) {
  if (!RDF::world || !model || !bytes || length == 0) return false;
  std::string refusal;
  if (!syntax && !Detail::ScreenRdfXml(reinterpret_cast<const char*>(bytes), length, refusal)) {
    Logger::Line(Logger::Severity::Information, "Veskan::RDF::Graph")
        << " RDF/XML refused: " << refusal.c_str();
    return false;
  }
  Detail::LibrdfErrors errors;
  Detail::ParserPtr parser(librdf_new_parser(RDF::world, syntax, nullptr, nullptr));
  Detail::UriPtr base = Detail::NewUri(StringBuffer(RDF::Graph::BaseUri).ToUTF8());
  if (!parser || !base) return false;
  // Nothing named by the text is fetched: no network, no files, no external entities.
  SetParserOption(parser.get(), "noNet", true);
  SetParserOption(parser.get(), "noFile", true);
  SetParserOption(parser.get(), "loadExternalEntities", false);
  Detail::StreamPtr stream(
      librdf_parser_parse_counted_string_as_stream(parser.get(), bytes, length, base.get()));
  if (!stream) return false;
  const int added = librdf_model_add_statements(model, stream.get());
  return added == 0 && errors.Count() == 0;
}

}  // namespace

const char* RDF::Graph::SerializationFormats::ToName(int format) {
  switch (format) {
    case RdfXmlAbbrev:
      return "rdfxml-abbrev";
    case RdfXml:
      return "rdfxml";
    case NTriples:
      return "ntriples";
    default:
      return nullptr;
  }
}

RDF::Graph::Graph() {
  Create();
}

RDF::Graph::Graph(const Graph& other) {
  Create();
  CopyInitialization(other);
}

RDF::Graph& RDF::Graph::operator=(const Graph& other) {
  if (this == &other) return *this;
  WorldLock lock = LockWorld();
  Release();
  Create();
  CopyInitialization(other);
  return *this;
}

RDF::Graph::~Graph() {
  Release();
}

void RDF::Graph::Create() {
  WorldLock lock = LockWorld();
  if (!RDF::world) return;
  const std::string name = NewId(u"graph.").ToUTF8();
  storage_ = librdf_new_storage(RDF::world, "trees", name.c_str(), nullptr);
  if (storage_) model_ = librdf_new_model(RDF::world, storage_, nullptr);
  if (!model_) {
    Logger::Line(Logger::Severity::Error, "Veskan::RDF::Graph")
        << " no librdf storage or model for " << name.c_str();
  }
}

void RDF::Graph::Release() {
  WorldLock lock = LockWorld();
  if (model_) librdf_free_model(model_);
  if (storage_) librdf_free_storage(storage_);
  model_ = nullptr;
  storage_ = nullptr;
}

void RDF::Graph::CopyInitialization(const Graph& other) {
  WorldLock lock = LockWorld();
  if (!model_ || !other.model_) return;
  Detail::StreamPtr stream(librdf_model_as_stream(other.model_));
  if (stream) librdf_model_add_statements(model_, stream.get());
}

std::shared_ptr<RDF::Graph> RDF::Graph::FromFile(const char16_t* path,
                                                 SerializationFormats::Enumeration format) {
  if (!path) return nullptr;
  // Read here rather than by librdf from a file URI: the parser is never let at files.
  const ByteBuffer bytes = BytesFromFile(path);
  if (bytes.Size() == 0) return nullptr;
  auto graph = std::make_shared<Graph>();
  WorldLock lock = LockWorld();
  if (!ParseInto(graph->model_, static_cast<const unsigned char*>(bytes),
                 static_cast<std::size_t>(bytes.Size()),
                 format == SerializationFormats::NTriples ? "ntriples" : nullptr))
    return nullptr;
  return graph;
}

std::shared_ptr<RDF::Graph> RDF::Graph::FromXmlDocument(
    const std::shared_ptr<XmlDocument>& document) {
  if (!document) return nullptr;
  const ByteBuffer bytes = UTF16to8(XmlSchema::PrintDoc(document));
  if (bytes.Size() == 0) return nullptr;
  auto graph = std::make_shared<Graph>();
  return graph->Add(bytes) == 1 ? graph : nullptr;
}

int RDF::Graph::Add(const ByteBuffer& bytes) {
  if (bytes.Size() == 0) return 0;
  WorldLock lock = LockWorld();
  if (!model_) return 0;
  const auto* text = static_cast<const unsigned char*>(bytes);
  const auto length = static_cast<std::size_t>(bytes.Size());
  // Straight into an empty graph, which a failure empties again; through a scratch graph
  // otherwise, so that a failure leaves the statements there were.
  if (Size() == 0) {
    if (ParseInto(model_, text, length, nullptr)) return 1;
    std::vector<std::shared_ptr<Triple>> partial;
    FindTriples(partial, nullptr, Node::Types::Uri, nullptr, nullptr, Node::Types::Uri);
    Remove(partial);
    return 0;
  }
  Graph scratch;
  if (!ParseInto(scratch.model_, text, length, nullptr)) return 0;
  Detail::StreamPtr stream(librdf_model_as_stream(scratch.model_));
  return stream && librdf_model_add_statements(model_, stream.get()) == 0 ? 1 : 0;
}

int RDF::Graph::Add(const std::vector<std::shared_ptr<Triple>>& triples) {
  WorldLock lock = LockWorld();
  if (!model_) return 0;
  int added = 0;
  for (const std::shared_ptr<Triple>& triple : triples) {
    librdf_statement* statement = triple ? triple->MakeStatement() : nullptr;
    if (statement && librdf_model_add_statement(model_, statement) == 0) ++added;
  }
  return added;
}

int RDF::Graph::Remove(const std::vector<std::shared_ptr<Triple>>& triples) {
  WorldLock lock = LockWorld();
  if (!model_) return 0;
  int removed = 0;
  for (const std::shared_ptr<Triple>& triple : triples) {
    librdf_statement* statement = triple ? triple->MakeStatement() : nullptr;
    if (statement && Contains(model_, statement) &&
        librdf_model_remove_statement(model_, statement) == 0)
      ++removed;
  }
  return removed;
}

int RDF::Graph::Remove(const char16_t* subject) {
  if (!subject || !*subject) return 0;
  StringBuffer text(subject);
  const bool blank = text.startsWith(u"_:");
  std::vector<std::shared_ptr<Triple>> found;
  WorldLock lock = LockWorld();
  FindTriples(found, blank ? text.tempSubString(2).getTerminatedBuffer() : subject,
              blank ? Node::Types::Blank : Node::Types::Uri, nullptr, nullptr, Node::Types::Uri);
  return Remove(found);
}

bool RDF::Graph::ifContains(const ByteBuffer& bytes) {
  WorldLock lock = LockWorld();
  Graph other;
  if (!model_ || other.Add(bytes) != 1 || other.Size() == 0) return false;
  Detail::StreamPtr stream(librdf_model_as_stream(other.model_));
  if (!stream) return false;
  for (; !librdf_stream_end(stream.get()); librdf_stream_next(stream.get())) {
    librdf_statement* statement = librdf_stream_get_object(stream.get());
    librdf_node* subject = librdf_statement_get_subject(statement);
    librdf_node* object = librdf_statement_get_object(statement);
    const bool blankSubject = librdf_node_is_blank(subject);
    const bool blankObject = librdf_node_is_blank(object);
    if (!blankSubject && !blankObject) {
      if (!Contains(model_, statement)) return false;
      continue;
    }
    // A blank node stands for any blank node here.
    Detail::StatementPtr pattern(librdf_new_statement_from_nodes(
        RDF::world, blankSubject ? nullptr : librdf_new_node_from_node(subject),
        librdf_new_node_from_node(librdf_statement_get_predicate(statement)),
        blankObject ? nullptr : librdf_new_node_from_node(object)));
    if (!pattern) return false;
    Detail::StreamPtr matches(librdf_model_find_statements(model_, pattern.get()));
    bool found = false;
    for (; matches && !found && !librdf_stream_end(matches.get());
         librdf_stream_next(matches.get())) {
      librdf_statement* match = librdf_stream_get_object(matches.get());
      found = (!blankSubject || librdf_node_is_blank(librdf_statement_get_subject(match))) &&
              (!blankObject || librdf_node_is_blank(librdf_statement_get_object(match)));
    }
    if (!found) return false;
  }
  return true;
}

int RDF::Graph::RemoveAnswers() {
  WorldLock lock = LockWorld();
  std::vector<std::shared_ptr<Triple>> typed;
  FindTriples(typed, nullptr, Node::Types::Uri, Predicate(u"rdf:type"), AnswerClass,
              Node::Types::Uri);
  std::vector<std::shared_ptr<Triple>> doomed;
  for (const std::shared_ptr<Triple>& answer : typed) {
    const Node& node = answer->Subject();
    StringBuffer id = node.Value();
    FindTriples(doomed, id.getTerminatedBuffer(), node.Type(), nullptr, nullptr, Node::Types::Uri);
    FindTriples(doomed, nullptr, Node::Types::Uri, nullptr, id.getTerminatedBuffer(), node.Type());
  }
  return Remove(doomed);
}

std::shared_ptr<RDF::Triple> RDF::Graph::FindOneTriple(const char16_t* subject,
                                                       const char16_t* predicate,
                                                       Node::Types::Enumeration subjectType) {
  if (!subject || !*subject || !predicate || !*predicate) return nullptr;
  WorldLock lock = LockWorld();
  std::vector<std::shared_ptr<Triple>> found;
  FindTriples(found, subject, subjectType, predicate, nullptr, Node::Types::Uri);
  return found.empty() ? nullptr : found.front();
}

std::shared_ptr<RDF::Triple> RDF::Graph::FindOneTripleViaIntermediateBlankNode(
    const char16_t* subject, const char16_t* via, const char16_t* predicate,
    Node::Types::Enumeration subjectType) {
  if (!subject || !*subject || !via || !*via || !predicate || !*predicate) return nullptr;
  WorldLock lock = LockWorld();
  std::vector<std::shared_ptr<Triple>> first;
  FindTriples(first, subject, subjectType, via, nullptr, Node::Types::Uri);
  for (const std::shared_ptr<Triple>& link : first) {
    if (link->Object().Type() != Node::Types::Blank) continue;
    StringBuffer middle = link->Object().Value();
    std::shared_ptr<Triple> found =
        FindOneTriple(middle.getTerminatedBuffer(), predicate, Node::Types::Blank);
    if (found) return found;
  }
  return nullptr;
}

int RDF::Graph::FindTriples(std::vector<std::shared_ptr<Triple>>& out, const char16_t* subject,
                            Node::Types::Enumeration subjectType, const char16_t* predicate,
                            const char16_t* object, Node::Types::Enumeration objectType) {
  WorldLock lock = LockWorld();
  if (!model_) return 0;
  Detail::NodePtr s = PatternNode(subject, subjectType);
  Detail::NodePtr p = PatternNode(predicate, Node::Types::Uri);
  Detail::NodePtr o = PatternNode(object, objectType);
  // A text that names no node (a bad URI) matches nothing.
  if ((subject && *subject && subjectType != Node::Types::Literal && !s) ||
      (predicate && *predicate && !p) ||
      (object && *object && objectType != Node::Types::Literal && !o))
    return 0;
  const bool literalObject = object && *object && objectType == Node::Types::Literal;
  const StringBuffer literal(literalObject ? object : u"");
  Detail::StatementPtr pattern(
      librdf_new_statement_from_nodes(RDF::world, s.release(), p.release(), o.release()));
  if (!pattern) return 0;
  Detail::StreamPtr stream(librdf_model_find_statements(model_, pattern.get()));
  int count = 0;
  for (; stream && !librdf_stream_end(stream.get()); librdf_stream_next(stream.get())) {
    librdf_statement* statement = librdf_stream_get_object(stream.get());
    if (literalObject && !LiteralMatches(librdf_statement_get_object(statement), literal)) continue;
    out.push_back(std::make_shared<Triple>(librdf_new_statement_from_statement(statement), true));
    ++count;
  }
  return count;
}

std::shared_ptr<RDF::Graph> RDF::Graph::Describe(const char16_t* subject,
                                                 Node::Types::Enumeration subjectType) {
  StringList subjects;
  subjects.Add(subject ? subject : u"");
  return Describe(subjects, std::vector<Node::Types::Enumeration>{subjectType});
}

std::shared_ptr<RDF::Graph> RDF::Graph::Describe(
    const StringList& subjects, const std::vector<Node::Types::Enumeration>& types) {
  auto into = std::make_shared<Graph>();
  Describe(subjects, types, into);
  return into;
}

int RDF::Graph::Describe(const StringList& subjects,
                         const std::vector<Node::Types::Enumeration>& types,
                         std::shared_ptr<Graph>& into) {
  if (!into) into = std::make_shared<Graph>();
  WorldLock lock = LockWorld();
  std::vector<std::shared_ptr<Triple>> found;
  std::set<std::u16string> visitedBlanks;
  std::vector<std::pair<StringBuffer, Node::Types::Enumeration>> pending;
  for (int i = 0; i < subjects.Count(); ++i) {
    const auto type = static_cast<std::size_t>(i) < types.size()
                          ? types[static_cast<std::size_t>(i)]
                          : Node::Types::Uri;
    if (subjects[i] && *subjects[i]) pending.emplace_back(StringBuffer(subjects[i]), type);
  }
  while (!pending.empty()) {
    const auto [subject, type] = pending.back();
    pending.pop_back();
    const std::size_t before = found.size();
    FindTriples(found, StringBuffer(subject).getTerminatedBuffer(), type, nullptr, nullptr,
                Node::Types::Uri);
    // Blank nodes reached are described too: nothing else names them.
    for (std::size_t i = before; i < found.size(); ++i) {
      const Node& object = found[i]->Object();
      const std::u16string id(object.Value().getBuffer(),
                              static_cast<std::size_t>(object.Value().length()));
      if (object.Type() == Node::Types::Blank && visitedBlanks.insert(id).second)
        pending.emplace_back(object.Value(), Node::Types::Blank);
    }
  }
  return into->Add(found);
}

int RDF::Graph::Size() {
  WorldLock lock = LockWorld();
  return model_ ? librdf_model_size(model_) : 0;
}

namespace {

// A serialiser for `format` with automatic indentation and the table's prefixes; null when the
// format is unknown or librdf refuses.
Detail::SerializerPtr NewSerializer(int format, const XPathVariables& namespaces) {
  const char* name = RDF::Graph::SerializationFormats::ToName(format);
  if (!name || !RDF::world) return nullptr;
  const bool rdfXml = format != RDF::Graph::SerializationFormats::NTriples;
  Detail::SerializerPtr serializer(
      librdf_new_serializer(RDF::world, name, rdfXml ? "application/rdf+xml" : nullptr, nullptr));
  if (!serializer) return nullptr;
  Detail::UriPtr feature = Detail::NewUri(std::string(kFeaturePrefix) + "autoIndent");
  RDF::Node one(u"1", u"xs:integer");
  if (feature && one.MakeNode())
    librdf_serializer_set_feature(serializer.get(), feature.get(), one.MakeNode());
  for (int i = 0; i < namespaces.Count(); ++i) {
    const XPathVariables::Entry& entry = namespaces(i);
    // "xml" is bound by XML itself and may not be declared.
    if (entry.Key.isEmpty() || entry.Value.isEmpty() || entry.Key == u"xml") continue;
    Detail::UriPtr uri = Detail::NewUri(entry.Value.ToUTF8());
    if (uri)
      librdf_serializer_set_namespace(serializer.get(), uri.get(), entry.Key.ToUTF8().c_str());
  }
  return serializer;
}

}  // namespace

StringBuffer RDF::Graph::Serialize(int format, const XPathVariables& namespaces) {
  WorldLock lock = LockWorld();
  if (!model_) return StringBuffer();
  Detail::LibrdfErrors errors;
  Detail::SerializerPtr serializer = NewSerializer(format, namespaces);
  if (!serializer) return StringBuffer();
  size_t length = 0;
  Detail::LibrdfText text(librdf_serializer_serialize_model_to_counted_string(
      serializer.get(), nullptr, model_, &length));
  if (!text || errors.Count() > 0) return StringBuffer();
  return FromUtf8(text.get(), length);
}

bool RDF::Graph::Serialize(FILE* file, SerializationFormats::Enumeration format,
                           const XPathVariables& namespaces) {
  if (!file) return false;
  WorldLock lock = LockWorld();
  if (!model_) return false;
  Detail::LibrdfErrors errors;
  Detail::SerializerPtr serializer = NewSerializer(format, namespaces);
  return serializer &&
         librdf_serializer_serialize_model_to_file_handle(serializer.get(), file, nullptr,
                                                          model_) == 0 &&
         errors.Count() == 0;
}

}  // namespace Veskan
