// Document order for the XPath evaluator, and the focus that library functions see.
#include "xml/xpath/XPathEvaluator.h"

#include "xml/xpath/XPathNodes.h"

#include <xercesc/dom/DOMAttr.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/dom/DOMNamedNodeMap.hpp>

#include <algorithm>
#include <functional>

namespace Veskan {
namespace Detail {
namespace XPath {

namespace {

using xercesc::DOMNode;

// Sets below this size sort by comparing ancestor chains; larger ones number their tree once.
constexpr std::size_t NumberingThreshold = 48;

bool IsAttribute(const DOMNode* node) {
  return node->getNodeType() == DOMNode::ATTRIBUTE_NODE;
}

// The chain from the root down to `node`, into `chain` (reused between calls).
void ChainOf(const DOMNode* node, std::vector<const DOMNode*>& chain) {
  chain.clear();
  for (; node; node = ParentOf(node))
    chain.push_back(node);
  std::reverse(chain.begin(), chain.end());
}

// Order of two different children or attributes of the same parent.
bool SiblingBefore(const DOMNode* a, const DOMNode* b) {
  const bool aAttribute = IsAttribute(a);
  const bool bAttribute = IsAttribute(b);
  if (aAttribute != bAttribute) return aAttribute;
  if (aAttribute) {
    const xercesc::DOMNamedNodeMap* attributes = ParentOf(a)->getAttributes();
    for (XMLSize_t i = 0, n = attributes->getLength(); i < n; ++i) {
      const DOMNode* attribute = attributes->item(i);
      if (attribute == a) return true;
      if (attribute == b) return false;
    }
    return false;
  }
  // Walk forward from both at once: whichever meets the other first comes first, so the cost is
  // the distance between them, not the number of siblings.
  const DOMNode* fromA = a->getNextSibling();
  const DOMNode* fromB = b->getNextSibling();
  while (fromA || fromB) {
    if (fromA == b) return true;
    if (fromB == a) return false;
    if (fromA) fromA = fromA->getNextSibling();
    if (fromB) fromB = fromB->getNextSibling();
  }
  return false;
}

}  // namespace

bool DocumentOrder::Before(const DOMNode* a, const DOMNode* b) {
  if (a == b) return false;
  if (!ordinals_.empty()) {
    auto first = ordinals_.find(a);
    auto second = ordinals_.find(b);
    if (first != ordinals_.end() && second != ordinals_.end())
      return first->second < second->second;
  }
  static thread_local std::vector<const DOMNode*> chainA;
  static thread_local std::vector<const DOMNode*> chainB;
  ChainOf(a, chainA);
  ChainOf(b, chainB);
  if (chainA.front() != chainB.front()) {
    return std::less<const DOMNode*>()(chainA.front(), chainB.front());
  }
  std::size_t i = 1;
  while (i < chainA.size() && i < chainB.size() && chainA[i] == chainB[i])
    ++i;
  if (i == chainA.size()) return true;   // a is an ancestor of b
  if (i == chainB.size()) return false;  // b is an ancestor of a
  return SiblingBefore(chainA[i], chainB[i]);
}

void DocumentOrder::Number(const DOMNode* root) {
  numberedRoots_.push_back(root);
  // Each tree numbered gets its own range of ordinals.
  std::uint64_t next = (static_cast<std::uint64_t>(numberedRoots_.size()) << 40);
  const DOMNode* node = root;
  while (node) {
    ordinals_.emplace(node, next++);
    if (const xercesc::DOMNamedNodeMap* attributes = node->getAttributes()) {
      for (XMLSize_t i = 0, n = attributes->getLength(); i < n; ++i) {
        ordinals_.emplace(attributes->item(i), next++);
      }
    }
    if (const DOMNode* child = node->getFirstChild()) {
      node = child;
      continue;
    }
    while (node && node != root && !node->getNextSibling())
      node = node->getParentNode();
    node = (node && node != root) ? node->getNextSibling() : nullptr;
  }
}

std::uint64_t DocumentOrder::Ordinal(const DOMNode* node) {
  auto found = ordinals_.find(node);
  if (found != ordinals_.end()) return found->second;
  const DOMNode* root = node;
  while (const DOMNode* parent = ParentOf(root))
    root = parent;
  Number(root);
  return ordinals_.at(node);
}

void DocumentOrder::Sort(Sequence& items) {
  if (items.size() < 2) return;
  // Most sets are in order already (a path over nodes that do not nest): one pass of neighbour
  // comparisons, each as cheap as the distance between the neighbours, confirms it.
  bool ordered = true;
  for (std::size_t i = 1; i < items.size() && ordered; ++i) {
    ordered = Before(items[i - 1].node, items[i].node);
  }
  if (ordered) return;
  auto same = [](const Item& x, const Item& y) { return x.node == y.node; };
  if (items.size() < NumberingThreshold) {
    std::stable_sort(items.begin(), items.end(),
                     [this](const Item& x, const Item& y) { return Before(x.node, y.node); });
    items.erase(std::unique(items.begin(), items.end(), same), items.end());
    return;
  }
  std::vector<std::pair<std::uint64_t, DOMNode*>> keyed;
  keyed.reserve(items.size());
  for (const Item& item : items)
    keyed.emplace_back(Ordinal(item.node), item.node);
  std::sort(keyed.begin(), keyed.end());
  keyed.erase(std::unique(keyed.begin(), keyed.end()), keyed.end());
  items.resize(keyed.size());
  for (std::size_t i = 0; i < keyed.size(); ++i)
    items[i] = Item::OfNode(keyed[i].second);
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
