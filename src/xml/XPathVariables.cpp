// XPathVariables: an ordered table of text keys and values.
#include <veskan/XPathVariables.h>

namespace Veskan {

const XPathVariables XPathVariables::Empty;

XPathVariables::Entry::Entry(const char16_t* key, const char16_t* value) : Key(key), Value(value) {}

XPathVariables::XPathVariables() = default;

XPathVariables::XPathVariables(const XPathVariables& other) {
  *this = other;
}

XPathVariables& XPathVariables::operator=(const XPathVariables& other) {
  if (&other == this) return *this;
  std::vector<std::unique_ptr<Entry>> copies;
  copies.reserve(other.entries_.size());
  for (const auto& entry : other.entries_)
    copies.push_back(std::make_unique<Entry>(*entry));
  entries_ = std::move(copies);
  Recount();
  return *this;
}

XPathVariables::~XPathVariables() = default;

void XPathVariables::AddPairs(std::initializer_list<const char16_t*> texts) {
  for (auto text = texts.begin(); text != texts.end() && text + 1 != texts.end(); text += 2) {
    if (!text[0] || !text[1]) break;
    SetValue(text[0], text[1]);
  }
}

XPathVariables::Entry* XPathVariables::Find(const char16_t* key) const {
  const char16_t* wanted = SafeStringLiteral(key);
  for (const auto& entry : entries_)
    if (entry->Key == wanted) return entry.get();
  return nullptr;
}

void XPathVariables::SetValue(const char16_t* key, const char16_t* value) {
  if (Entry* entry = Find(key)) {
    entry->Value = SafeStringLiteral(value);
    return;
  }
  entries_.push_back(std::make_unique<Entry>(key, value));
  Recount();
}

StringBuffer XPathVariables::GetValue(const char16_t* key, const char16_t* fallback) const {
  const Entry* entry = Find(key);
  return entry ? entry->Value : StringBuffer(fallback);
}

const char16_t* XPathVariables::operator[](const char16_t* key) const {
  const Entry* entry = Find(key);
  return entry ? entry->Value.c_str() : u"";
}

StringBuffer& XPathVariables::operator[](const char16_t* key) {
  if (Entry* entry = Find(key)) return entry->Value;
  entries_.push_back(std::make_unique<Entry>(key, nullptr));
  Recount();
  return entries_.back()->Value;
}

bool XPathVariables::Contains(const char16_t* key) const {
  return Find(key) != nullptr;
}

StringBuffer XPathVariables::GetKey(const char16_t* value) const {
  if (IsEmptyString(value)) return StringBuffer();
  for (const auto& entry : entries_)
    if (entry->Value == value) return entry->Key;
  return StringBuffer();
}

const XPathVariables::Entry& XPathVariables::operator()(int index) const {
  static const Entry none(nullptr, nullptr);
  if (index < 0 || index >= count_) return none;
  return *entries_[static_cast<std::size_t>(index)];
}

void XPathVariables::Clear() {
  entries_.clear();
  Recount();
}

XPathVariables XPathVariables::operator+(const XPathVariables& other) const {
  XPathVariables sum(*this);
  for (const auto& entry : other.entries_)
    sum.SetValue(entry->Key, entry->Value);
  return sum;
}

}  // namespace Veskan
