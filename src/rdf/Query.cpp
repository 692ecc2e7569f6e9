// RDF::Query: compiling SPARQL in the librdf world and running it on graphs.
#include <veskan/RDFQuery.h>

#include "rdf/QueryRun.h"
#include "rdf/Redland.h"

namespace Veskan {

using Detail::LockWorld;
using Detail::WorldLock;

const char* RDF::Query::Languages::ToName(int language) {
  return language == SPARQL ? "sparql" : nullptr;
}

RDF::Query::Query(const char16_t* text, Languages::Enumeration language)
    : text_(text ? text : u""), language_(language) {
  WorldLock lock = LockWorld();
  const char* name = Languages::ToName(language);
  rasqal_world* rasqal = RDF::world ? librdf_world_get_rasqal(RDF::world) : nullptr;
  // librdf parses a query only when it first runs: rasqal parses it here, so that a bad text is
  // known at once, and tells its form and LIMIT.
  bool parsed = false;
  if (rasqal && name) {
    Detail::LibrdfErrors errors;
    Detail::RasqalQueryPtr check(rasqal_new_query(rasqal, name, nullptr));
    const std::string utf8 = text_.ToUTF8();
    parsed = check && rasqal_query_prepare(check.get(), Detail::Bytes(utf8), nullptr) == 0 &&
             errors.Count() == 0;
    if (parsed) {
      const rasqal_query_verb verb = rasqal_query_get_verb(check.get());
      bounded_ = verb != RASQAL_QUERY_VERB_ASK && rasqal_query_get_limit(check.get()) < 0;
    }
  }
  if (!parsed || !Compile()) {
    errorCode_ = u"##parse error ##";
    errorMessage_ = u"The query text could not be parsed.";
  }
}

RDF::Query::~Query() {
  WorldLock lock = LockWorld();
  compiled_.reset();
}

bool RDF::Query::Compile() {
  WorldLock lock = LockWorld();
  compiled_.reset();
  compiledMaxRows_ = maxRows_;
  std::string utf8 = text_.ToUTF8();
  // On a line of its own, after any comment that ends the text.
  if (bounded_ && maxRows_ > 0) utf8 += "\nLIMIT " + std::to_string(maxRows_);
  librdf_query* query = librdf_new_query(RDF::world, Languages::ToName(language_), nullptr,
                                         Detail::Bytes(utf8), nullptr);
  if (!query) return false;
  compiled_.reset(query, [](librdf_query* freed) {
    WorldLock held = LockWorld();
    librdf_free_query(freed);
  });
  return true;
}

std::shared_ptr<RDF::Results> RDF::Query::Execute(const std::shared_ptr<Graph>& graph) {
  if (!compiled_ || !graph) return nullptr;
  WorldLock lock = LockWorld();
  librdf_model* model = *graph;
  if (!model || (compiledMaxRows_ != maxRows_ && !Compile())) return nullptr;
  librdf_query_results* results = librdf_query_execute(compiled_.get(), model);
  if (!results) return nullptr;
  auto run = std::make_shared<Results::Run>(compiled_, graph, results);
  return std::shared_ptr<Results>(new Results(std::move(run)));
}

}  // namespace Veskan
