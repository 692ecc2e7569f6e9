// RDF::Triple: statements as three nodes, and their librdf statements.
#include <veskan/RDFGraph.h>

#include "rdf/Redland.h"

namespace Veskan {

namespace {

// The object of a constructor: a literal's qualifier is its datatype when it holds a colon (a
// URI or a prefixed name), its language otherwise.
RDF::Node ObjectNode(const char16_t* object, RDF::Node::Types::Enumeration type,
                     const char16_t* qualifier) {
  RDF::Node node(object, type);
  if (type == RDF::Node::Types::Literal && qualifier && *qualifier) {
    if (StringBuffer(qualifier).indexOf(u':') >= 0)
      node.SetDatatype(qualifier);
    else
      node.SetLanguage(qualifier);
  }
  return node;
}

}  // namespace

RDF::Triple::Triple(librdf_statement* statement, bool owns)
    : statement_(statement), owns_(owns && statement) {
  if (!statement) return;
  globals_ = std::make_unique<Globals>();
  Detail::WorldLock lock = Detail::LockWorld();
  // Texts only: the nodes make librdf nodes of their own if ever asked, so they do not depend
  // on the statement's lifetime.
  subject_ = Node(librdf_statement_get_subject(statement), false);
  predicate_ = Node(librdf_statement_get_predicate(statement), false);
  object_ = Node(librdf_statement_get_object(statement), false);
}

RDF::Triple::Triple(const char16_t* subject, const char16_t* predicate, const char16_t* object,
                    Node::Types::Enumeration objectType, const char16_t* qualifier)
    : Triple(subject, Node::Types::Uri, predicate, object, objectType, qualifier) {}

RDF::Triple::Triple(const char16_t* subject, Node::Types::Enumeration subjectType,
                    const char16_t* predicate, const char16_t* object,
                    Node::Types::Enumeration objectType, const char16_t* qualifier)
    : subject_(subject, subjectType),
      predicate_(predicate, Node::Types::Uri),
      object_(ObjectNode(object, objectType, qualifier)) {}

RDF::Triple::Triple(const Triple& other)
    : subject_(other.subject_), predicate_(other.predicate_), object_(other.object_) {}

RDF::Triple& RDF::Triple::operator=(const Triple& other) {
  if (this == &other) return *this;
  Release();
  subject_ = other.subject_;
  predicate_ = other.predicate_;
  object_ = other.object_;
  return *this;
}

RDF::Triple::~Triple() {
  Release();
}

void RDF::Triple::Release() {
  if (statement_ && owns_) {
    Detail::WorldLock lock = Detail::LockWorld();
    librdf_free_statement(statement_);
  }
  statement_ = nullptr;
  owns_ = false;
  globals_.reset();
}

StringBuffer RDF::Triple::FormattedString() const {
  return subject_.FormattedString() + u" " + predicate_.FormattedString() + u" " +
         object_.FormattedString() + u" .";
}

librdf_statement* RDF::Triple::MakeStatement() {
  if (statement_) return statement_;
  auto globals = std::make_unique<Globals>();  // the libraries stay up while it lives
  Detail::WorldLock lock = Detail::LockWorld();
  if (!RDF::world) return nullptr;
  librdf_node* subject = subject_.MakeNode();
  librdf_node* predicate = predicate_.MakeNode();
  librdf_node* object = object_.MakeNode();
  if (!subject || !predicate || !object) return nullptr;
  // The statement takes nodes of its own: `_from_nodes` takes ownership of what it is given.
  statement_ = librdf_new_statement_from_nodes(RDF::world, librdf_new_node_from_node(subject),
                                               librdf_new_node_from_node(predicate),
                                               librdf_new_node_from_node(object));
  owns_ = statement_ != nullptr;
  if (statement_) globals_ = std::move(globals);
  return statement_;
}

}  // namespace Veskan
