// SPARQL over RDF graphs: RDF::Query compiles a query, RDF::Results holds what a run produced,
// RDF::Result is one row of variable bindings.
#ifndef VESKAN_RDFQUERY_H
#define VESKAN_RDFQUERY_H

#include <veskan/Export.h>
#include <veskan/Globals.h>
#include <veskan/RDFGraph.h>
#include <veskan/StringBuffer.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Veskan {

// One row: each variable's name mapped to its value, in the order of the names.
//
// Thread safety: a plain value.
class VESKAN_API RDF::Result {
 public:
  using Bindings = std::map<StringBuffer, std::shared_ptr<Node>>;

  // The value of `name`; an empty entry is added when the row has none.
  std::shared_ptr<Node>& operator[](const char16_t* name);
  // The text of the value at `index` in name order; empty for a bad index or an empty entry.
  StringBuffer operator()(int index) const;
  bool Contains(const char16_t* name) const;
  int Count() const { return static_cast<int>(bindings_.size()); }
  Bindings::const_iterator begin() const { return bindings_.begin(); }
  Bindings::const_iterator end() const { return bindings_.end(); }

 private:
  friend class Results;  // fills rows without copying each name and value again
  Bindings bindings_;
};

// What one run of a query produced: rows of bindings (SELECT), a truth value (ASK) or a graph
// (CONSTRUCT, DESCRIBE). The rows are built on first need, as the SPARQL results XML gives them:
// one row per result, each bound variable a node of its kind holding the text alone (a literal's
// language and datatype are not kept, as this system's readers of that format expect).
//
// Thread safety: use one object on one thread; every librdf call holds RDF::worldMutex.
class VESKAN_API RDF::Results {
 public:
  Results(const Results&) = delete;
  Results& operator=(const Results&) = delete;
  virtual ~Results();

  // The number of rows, building them on the first call (0 for ASK and graph results).
  int length();
  // The row at `index`; a shared empty row for an index below 0 or not below length().
  Result& operator[](int index);
  // Appends a copy of `row`; returns the number of rows before it.
  int Add(const Result& row);
  void RemoveAt(int index);
  void Clear();

  // Whether these are the truth value of an ASK.
  bool IsBoolean();
  // ASK: whether the pattern matched. False for other results.
  bool Boolean();
  // Graph results (CONSTRUCT, DESCRIBE) as a graph; null for others.
  std::shared_ptr<Graph> AsGraph();

  // For the first SerializationFormats value (RDF/XML): rows and truth values as SPARQL results
  // XML, graph results as RDF/XML with Namespaces::Defaults' prefixes. Empty for any other format
  // or when librdf fails.
  StringBuffer Serialize(int format);

 protected:
  friend class Query;
  class Run;
  explicit Results(std::shared_ptr<Run> run);

 private:
  // librdf's results written once as SPARQL results XML (rows and truth values).
  const std::string& ResultsXml();
  // The run's results the first time, then a new run's: rows and truth values can be read only
  // once, and both the rows and Serialize read them.
  librdf_query_results* Unread();

  Globals globals_;
  std::shared_ptr<Run> run_;
  bool read_ = false;
  bool built_ = false;
  bool written_ = false;
  std::string xml_;
  std::shared_ptr<Graph> graph_;
  std::vector<Result> rows_;
};

// A SPARQL query compiled once, run on any number of graphs.
//
// Bounds: a query that returns rows or statements and has no LIMIT of its own runs with LIMIT
// MaxRows (DEFAULT_MAX_ROWS unless set; 0: none), so that a query joining a large graph with
// itself stops there. What is not bounded: the time of a join whose FILTER rejects every pair,
// and the memory of ORDER BY, which sorts every row before the LIMIT applies; both hold
// RDF::worldMutex the while. Hosts should run only queries they wrote.
//
// Thread safety: use one object on one thread; every librdf call holds RDF::worldMutex.
class VESKAN_API RDF::Query {
 public:
  class VESKAN_API Languages {
   public:
    enum Enumeration { SPARQL = 0 };
    // librdf's name of the language ("sparql"); null for a value outside the enumeration.
    static const char* ToName(int language);
  };
  static constexpr int DEFAULT_MAX_ROWS = 1000000;

  // Compiles `text`. When it does not parse, ErrorCode is "##parse error ##", ErrorMessage
  // "The query text could not be parsed.", and Execute gives null.
  Query(const char16_t* text, Languages::Enumeration language = Languages::SPARQL);
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;
  virtual ~Query();

  // Runs the query on `graph`; null when it did not compile, the graph is null or librdf gives
  // no results. The results keep the graph and the compiled query alive.
  std::shared_ptr<Results> Execute(const std::shared_ptr<Graph>& graph);

  // Takes effect from the next Execute.
  void SetMaxRows(int rows) { maxRows_ = rows < 0 ? 0 : rows; }
  int MaxRows() const { return maxRows_; }

  const StringBuffer& Text() const { return text_; }
  Languages::Enumeration Language() const { return language_; }
  const StringBuffer& ErrorCode() const { return errorCode_; }
  const StringBuffer& ErrorMessage() const { return errorMessage_; }

  // The compiled query; null when the text did not compile.
  operator librdf_query*() const { return compiled_.get(); }

 private:
  static constexpr int RUNS_PER_PARSE = 256;
  // A new librdf query parsed by a run on an empty model; null when librdf refuses the text.
  // Sets bounded_ and starts the count of runs.
  std::shared_ptr<librdf_query> Prepare();
  Globals globals_;
  StringBuffer text_;
  Languages::Enumeration language_;
  bool bounded_ = false;   // returns rows or statements and has no LIMIT of its own
  bool onceOnly_ = false;  // librdf's parse of the text serves one run only
  int runs_ = 0;           // of compiled_ since its parse
  int maxRows_ = DEFAULT_MAX_ROWS;
  // Shared with the results of its runs, which read through it.
  std::shared_ptr<librdf_query> compiled_;
  StringBuffer errorCode_;
  StringBuffer errorMessage_;
};

}  // namespace Veskan

#endif
