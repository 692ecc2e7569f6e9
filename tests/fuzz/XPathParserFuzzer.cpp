// Fuzzes the XPath engine's tokenizer and parser: any text either parses or fails with a syntax
// error, and a parsed tree printed as XPath parses back to the same tree.
#include "xml/xpath/XPathParser.h"

#include "FuzzInput.h"

#include <string>

using namespace Veskan;
using namespace Veskan::Detail::XPath;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const StringBuffer text = Fuzzing::Utf16(data, size);
  std::unique_ptr<Node> tree;
  try {
    tree = Parse(std::u16string_view(text.getBuffer(), static_cast<std::size_t>(text.length())));
  } catch (const XPathSyntaxError& error) {
    Fuzzing::Require(error.Offset() <= static_cast<std::size_t>(text.length()));
    return 0;
  }
  Fuzzing::Require(tree != nullptr && tree->height <= MaxTreeHeight);

  // The printed form parenthesises every operator, at most two levels per tree level; trees
  // within the default nesting limit are checked at the depth their printed form needs.
  if (tree->height > 256) return 0;
  const std::string shape = ToSExpression(*tree);
  const std::u16string printed = ToXPath(*tree);
  const auto reparsed = Parse(printed, 2 * tree->height + 2);
  Fuzzing::Require(ToSExpression(*reparsed) == shape);
  Fuzzing::Require(ToXPath(*reparsed) == printed);
  return 0;
}
