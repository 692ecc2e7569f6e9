// RDF::Query: compiling SPARQL in the librdf world and running it on graphs.
#include <veskan/RDFQuery.h>

#include "rdf/QueryRun.h"
#include "rdf/Redland.h"

#include <cctype>

namespace Veskan {

using Detail::LockWorld;
using Detail::WorldLock;

namespace {

bool IsNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

// Whether librdf's parse of `text` may serve only one run: rasqal rewrites the projection of a
// query that computes values (aggregates, expressions bound with AS) while it runs it, so a
// second run gives other rows. Any word that may begin these counts, in a literal or comment
// too: a needless yes costs only a parse.
bool ParseServesOneRun(const std::string& text) {
  static const char* const words[] = {"as",  "count",  "sum",          "min",   "max",
                                      "avg", "sample", "group_concat", "having"};
  for (std::size_t start = 0; start < text.size();) {
    if (!IsNameChar(text[start])) {
      ++start;
      continue;
    }
    std::size_t end = start;
    while (end < text.size() && IsNameChar(text[end]))
      ++end;
    // A prefixed name's local part or prefix, or a variable, is not a keyword.
    const bool named = (start > 0 && (text[start - 1] == ':' || text[start - 1] == '?' ||
                                      text[start - 1] == '$')) ||
                       (end < text.size() && text[end] == ':');
    if (!named) {
      std::string word = text.substr(start, end - start);
      for (char& c : word)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      for (const char* keyword : words)
        if (word == keyword) return true;
    }
    start = end;
  }
  return false;
}

}  // namespace

std::shared_ptr<librdf_query> Detail::NewQuery(const char* language, const std::string& utf8) {
  WorldLock lock = LockWorld();
  if (!RDF::world || !language) return nullptr;
  librdf_query* query = librdf_new_query(RDF::world, language, nullptr, Bytes(utf8), nullptr);
  if (!query) return nullptr;
  return std::shared_ptr<librdf_query>(query, [](librdf_query* freed) {
    WorldLock held = LockWorld();
    librdf_free_query(freed);
  });
}

const char* RDF::Query::Languages::ToName(int language) {
  return language == SPARQL ? "sparql" : nullptr;
}

RDF::Query::Query(const char16_t* text, Languages::Enumeration language)
    : text_(text ? text : u""), language_(language) {
  compiled_ = Prepare();
  if (compiled_) {
    onceOnly_ = ParseServesOneRun(text_.ToUTF8());
  } else {
    errorCode_ = u"##parse error ##";
    errorMessage_ = u"The query text could not be parsed.";
  }
}

RDF::Query::~Query() {
  WorldLock lock = LockWorld();
  compiled_.reset();
}

// librdf parses a query only when it first runs. Running it once on an empty model makes a bad
// text known at once and tells the query's form and LIMIT; later runs reuse that parse when
// rasqal allows it.
std::shared_ptr<librdf_query> RDF::Query::Prepare() {
  WorldLock lock = LockWorld();
  std::shared_ptr<librdf_query> query =
      Detail::NewQuery(Languages::ToName(language_), text_.ToUTF8());
  librdf_model* empty = query ? Detail::EmptyModel() : nullptr;
  if (!empty) return nullptr;
  Detail::LibrdfErrors errors;
  Detail::ResultsPtr trial(librdf_query_execute(query.get(), empty));
  if (!trial || errors.Count() != 0) return nullptr;
  bounded_ =
      !librdf_query_results_is_boolean(trial.get()) && librdf_query_get_limit(query.get()) < 0;
  runs_ = 0;
  return query;
}

std::shared_ptr<RDF::Results> RDF::Query::Execute(const std::shared_ptr<Graph>& graph) {
  if (!compiled_ || !graph) return nullptr;
  WorldLock lock = LockWorld();
  librdf_model* model = *graph;
  if (!model) return nullptr;
  // rasqal remembers every run of a query and looks through them all when one ends, so a parse
  // is renewed after RUNS_PER_PARSE runs, before that search costs more than a parse.
  if (!onceOnly_ && compiled_.use_count() == 1 && runs_ >= RUNS_PER_PARSE)
    if (std::shared_ptr<librdf_query> renewed = Prepare()) compiled_ = std::move(renewed);
  // A librdf query reads one run at a time, so while results of an earlier run live, this run
  // gets a query of its own; so does every run of a query whose parse serves one run. librdf
  // takes a LIMIT only after its parse, so a new query has it in its text, on a line of its own
  // after any comment that ends the text.
  std::shared_ptr<librdf_query> query;
  std::string text;
  if (onceOnly_ || compiled_.use_count() > 1) {
    text = text_.ToUTF8();
    if (bounded_ && maxRows_ > 0) text += "\nLIMIT " + std::to_string(maxRows_);
    query = Detail::NewQuery(Languages::ToName(language_), text);
  } else {
    query = compiled_;
    ++runs_;
    if (bounded_) librdf_query_set_limit(query.get(), maxRows_ > 0 ? maxRows_ : -1);
  }
  if (!query) return nullptr;
  librdf_query_results* results = librdf_query_execute(query.get(), model);
  if (!results) return nullptr;
  // A query of its own may run again, unless its parse serves one run.
  if (!onceOnly_) text.clear();
  auto run = std::make_shared<Results::Run>(std::move(query), graph, results, std::move(text));
  return std::shared_ptr<Results>(new Results(std::move(run)));
}

}  // namespace Veskan
