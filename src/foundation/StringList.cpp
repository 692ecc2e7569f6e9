// StringList: an indexed list of StringBuffer that never fails on a bad index.
#include <veskan/StringBuffer.h>

#include "foundation/TextOrder.h"

#include <utility>

namespace Veskan {

StringList::StringList() = default;

StringList::StringList(std::initializer_list<StringBuffer> entries) : entries_(entries) {
  Recount();
}

StringList::StringList(const StringList& other) = default;

StringList::StringList(StringList&& other) noexcept
    : entries_(std::move(other.entries_)), count_(std::exchange(other.count_, 0)) {
  other.Recount();
}

StringList::~StringList() = default;

StringList& StringList::operator=(const StringList& other) = default;

StringList& StringList::operator=(StringList&& other) noexcept {
  entries_ = std::move(other.entries_);
  Recount();
  other.entries_.clear();
  other.Recount();
  return *this;
}

int StringList::Add(const char16_t* text) {
  return Add(StringBuffer(text));
}

int StringList::Add(StringBuffer text) {
  const int index = count_;
  entries_.push_back(std::move(text));
  Recount();
  return index;
}

void StringList::RemoveAt(int index) {
  if (index < 0 || index >= count_) return;
  entries_.erase(entries_.begin() + index);
  Recount();
}

void StringList::RemoveAll() {
  entries_.clear();
  Recount();
}

const char16_t* StringList::operator[](int index) const {
  if (index < 0 || index >= count_) return SafeStringLiteral(nullptr);
  return entries_[static_cast<std::size_t>(index)].c_str();
}

StringBuffer& StringList::operator[](int index) {
  if (index >= 0 && index < count_) return entries_[static_cast<std::size_t>(index)];
  thread_local StringBuffer spare;
  spare.remove();
  spare.getTerminatedBuffer();
  return spare;
}

void StringList::Sort(int methods) {
  if (count_ < 2) return;
  std::vector<StringBuffer> sorted;
  sorted.reserve(entries_.size());
  for (std::size_t index : Detail::SortOrder(entries_, methods, Detail::EqualKeys::ByCodeUnits)) {
    sorted.push_back(std::move(entries_[index]));
  }
  entries_ = std::move(sorted);
}

}  // namespace Veskan
