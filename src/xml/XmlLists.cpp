// XmlNodeList, XmlElementList and XmlAttributeList: plain lists of nodes owned elsewhere.
#include <veskan/XmlSchema.h>

#include <algorithm>

namespace Veskan {

namespace {

template <typename Node>
Node* At(const std::vector<Node*>& nodes, int index) {
  if (index < 0 || index >= static_cast<int>(nodes.size())) return nullptr;
  return nodes[static_cast<std::size_t>(index)];
}

template <typename Node>
void EraseAt(std::vector<Node*>& nodes, int index) {
  if (index < 0 || index >= static_cast<int>(nodes.size())) return;
  nodes.erase(nodes.begin() + index);
}

}  // namespace

XmlNodeList::~XmlNodeList() = default;

int XmlNodeList::Add(xercesc::DOMNode* node) {
  nodes_.push_back(node);
  Recount();
  return count_ - 1;
}

xercesc::DOMNode* XmlNodeList::operator[](int index) const {
  return At(nodes_, index);
}

void XmlNodeList::RemoveAt(int index) {
  EraseAt(nodes_, index);
  Recount();
}

void XmlNodeList::RemoveAll() {
  nodes_.clear();
  Recount();
}

void XmlNodeList::FilterToType(XmlNodeType::Enumeration type) {
  nodes_.erase(
      std::remove_if(nodes_.begin(), nodes_.end(),
                     [type](xercesc::DOMNode* node) { return XmlNodeType::Of(node) != type; }),
      nodes_.end());
  Recount();
}

XmlElementList::~XmlElementList() = default;

int XmlElementList::Add(xercesc::DOMElement* element) {
  elements_.push_back(element);
  Recount();
  return count_ - 1;
}

int XmlElementList::InsertAt(int index, xercesc::DOMElement* element) {
  const int position = std::clamp(index, 0, count_);
  elements_.insert(elements_.begin() + position, element);
  Recount();
  return position;
}

xercesc::DOMElement* XmlElementList::operator[](int index) const {
  return At(elements_, index);
}

void XmlElementList::RemoveAt(int index) {
  EraseAt(elements_, index);
  Recount();
}

void XmlElementList::RemoveAll() {
  elements_.clear();
  Recount();
}

void XmlElementList::CopyTo(XmlElementList& list) const {
  if (&list == this) {
    const std::vector<xercesc::DOMElement*> copy = elements_;
    list.elements_.insert(list.elements_.end(), copy.begin(), copy.end());
  } else {
    list.elements_.insert(list.elements_.end(), elements_.begin(), elements_.end());
  }
  list.Recount();
}

XmlAttributeList::~XmlAttributeList() = default;

int XmlAttributeList::Add(xercesc::DOMAttr* attribute) {
  attributes_.push_back(attribute);
  Recount();
  return count_ - 1;
}

xercesc::DOMAttr* XmlAttributeList::operator[](int index) const {
  return At(attributes_, index);
}

void XmlAttributeList::RemoveAt(int index) {
  EraseAt(attributes_, index);
  Recount();
}

void XmlAttributeList::RemoveAll() {
  attributes_.clear();
  Recount();
}

}  // namespace Veskan
