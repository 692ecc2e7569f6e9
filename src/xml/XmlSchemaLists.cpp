// XmlSchema: sorting, grouping and randomising lists of elements.
#include <veskan/Statistics.h>
#include <veskan/XPathExpression.h>
#include <veskan/XmlSchema.h>

#include "foundation/TextOrder.h"
#include "xml/XmlNames.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <numeric>

namespace Veskan {

namespace {

// Reorders `elements` stably by their `keys` under the SortMethods flags of `direction`.
void SortByKeys(XmlElementList& elements, const std::vector<StringBuffer>& keys, int direction) {
  if (elements.Count() < 2) return;
  const std::vector<std::size_t> order =
      Detail::SortOrder(keys, direction, Detail::EqualKeys::KeepOrder);
  XmlElementList sorted;
  for (std::size_t index : order)
    sorted.Add(elements[static_cast<int>(index)]);
  elements = sorted;
}

// The randomisation markers of one element: child elements compared by their full node name.
struct Markers {
  StringBuffer kind;
  StringBuffer pageReference;
  StringBuffer pagePosition;
};

Markers MarkersOf(const xercesc::DOMElement* element) {
  Markers markers;
  bool seenKind = false, seenReference = false, seenPosition = false;
  for (const xercesc::DOMElement* child = XmlSchema::FirstChildElement(element); child;
       child = XmlSchema::NextElement(child)) {
    const StringBuffer name(child->getNodeName());
    if (!seenKind && name == u"veskan:randomization") {
      markers.kind = XmlSchema::GetTextContent(child);
      seenKind = true;
    } else if (!seenReference && name == u"veskan:pageref") {
      markers.pageReference = XmlSchema::GetTextContent(child);
      seenReference = true;
    } else if (!seenPosition && name == u"veskan:pageposition") {
      markers.pagePosition = XmlSchema::GetTextContent(child);
      seenPosition = true;
    }
  }
  return markers;
}

struct FixedElement {
  int index;  // in the input list
  xercesc::DOMElement* element;
};

struct GroupedElement {
  xercesc::DOMElement* element;
  StringBuffer page;
  int position;
  bool placed;
};

// True when `element` is the page that `reference` names: its "rdf:about" is the reference, or
// "page." followed by it.
bool IsPage(const xercesc::DOMElement* element, const StringBuffer& reference) {
  if (!element || reference.isEmpty()) return false;
  const xercesc::DOMAttr* about = element->getAttributeNodeNS(Namespaces::Uri::RDF, u"about");
  if (!about) return false;
  const StringBuffer identifier(about->getValue());
  return identifier == reference || identifier == StringBuffer(u"page.") + reference;
}

}  // namespace

void XmlSchema::SortElementsByAttributeValue(XmlElementList& elements, const char16_t* attribute,
                                             const char16_t* namespaceUri, int direction) {
  std::vector<StringBuffer> keys;
  keys.reserve(static_cast<std::size_t>(elements.Count()));
  for (const xercesc::DOMElement* element : elements)
    keys.push_back(GetAttribute(element, attribute, namespaceUri));
  SortByKeys(elements, keys, direction);
}

void XmlSchema::SortElementsByTextContent(XmlElementList& elements, int direction) {
  std::vector<StringBuffer> keys;
  keys.reserve(static_cast<std::size_t>(elements.Count()));
  for (const xercesc::DOMElement* element : elements)
    keys.push_back(element ? Detail::TextContent(element) : StringBuffer());
  SortByKeys(elements, keys, direction);
}

void XmlSchema::MapElementsByAttributeValue(const XmlElementList& elements,
                                            const char16_t* attribute, XmlElementMap& map,
                                            const XPathVariables& namespaces) {
  for (xercesc::DOMElement* element : elements) {
    const xercesc::DOMAttr* found = Detail::AttributeThroughTable(element, attribute, namespaces);
    std::shared_ptr<XmlElementList>& group = map[StringBuffer(found ? found->getValue() : nullptr)];
    if (!group) group = std::make_shared<XmlElementList>();
    group->Add(element);
  }
}

void XmlSchema::MapElementsByAttributeValue(const XPathExpression& expression,
                                            const char16_t* attribute, XmlElementMap& map,
                                            const XPathVariables& namespaces) {
  XmlElementList elements;
  for (int i = 0; i < expression.Count(); ++i) {
    if (xercesc::DOMElement* element = NodeAsElement(expression[i])) elements.Add(element);
  }
  MapElementsByAttributeValue(elements, attribute, map, namespaces);
}

XmlElementList XmlSchema::Randomize(const XmlElementList& elements, const char16_t* seed) {
  const StringBuffer vocabulary = StringBuffer(Namespaces::Uri::Veskan) + u"randomization#";
  const StringBuffer mayOmit = vocabulary + u"may-omit";
  const StringBuffer fixedPosition = vocabulary + u"must-include-fixed-position";
  const StringBuffer groupWithPage = vocabulary + u"must-include-group-with-page";

  RandomSequence sequence(seed);
  std::vector<xercesc::DOMElement*> shuffled;
  std::vector<FixedElement> fixed;
  std::vector<GroupedElement> grouped;
  for (int index = 0; index < elements.Count(); ++index) {
    xercesc::DOMElement* element = elements[index];
    const Markers markers = MarkersOf(element);
    if (markers.kind == mayOmit) {
      if (sequence.NextInteger(5) == 0) continue;
      shuffled.push_back(element);
    } else if (markers.kind == fixedPosition) {
      fixed.push_back({index, element});
    } else if (markers.kind == groupWithPage && index > 0) {
      grouped.push_back(
          {element, markers.pageReference, ParseInteger(markers.pagePosition), false});
    } else {
      shuffled.push_back(element);
    }
  }

  std::vector<xercesc::DOMElement*> order;
  order.reserve(static_cast<std::size_t>(elements.Count()));
  for (int drawn : sequence.GetRandomSequence(static_cast<int>(shuffled.size())))
    order.push_back(shuffled[static_cast<std::size_t>(drawn)]);
  for (const FixedElement& entry : fixed)
    order.insert(order.begin() + std::min(static_cast<std::size_t>(entry.index), order.size()),
                 entry.element);

  std::stable_sort(
      grouped.begin(), grouped.end(),
      [](const GroupedElement& a, const GroupedElement& b) { return a.position < b.position; });
  XmlElementList result;
  for (xercesc::DOMElement* element : order) {
    result.Add(element);
    for (GroupedElement& member : grouped) {
      if (member.placed || !IsPage(element, member.page)) continue;
      result.Add(member.element);
      member.placed = true;
    }
  }
  // Members whose page is not in the result still must be shown: at the end, by position.
  for (const GroupedElement& member : grouped)
    if (!member.placed) result.Add(member.element);
  return result;
}

}  // namespace Veskan
