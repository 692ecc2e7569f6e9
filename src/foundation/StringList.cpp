// StringList: an indexed list of StringBuffer that never fails on a bad index.
#include <veskan/StringBuffer.h>

#include <unicode/coll.h>
#include <unicode/locid.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
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

namespace {

// Numeric keys: empty entries first, then NaN, then numbers by value.
struct NumericKey {
  int rank;  // 0 empty, 1 NaN, 2 number
  double value;
};

NumericKey KeyOf(const StringBuffer& entry) {
  if (entry.isEmpty()) return {0, 0.0};
  const double value = ParseDouble(entry.c_str());
  return std::isnan(value) ? NumericKey{1, 0.0} : NumericKey{2, value};
}

// Sorts `order` (indexes into `entries`) with `less`, reversed for Descending.
template <typename Less>
void SortIndexes(std::vector<std::size_t>& order, bool descending, Less less) {
  if (descending) {
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return less(b, a); });
  } else {
    std::sort(order.begin(), order.end(), less);
  }
}

}  // namespace

void StringList::Sort(int methods) {
  if (count_ < 2) return;
  const bool descending = (methods & SortMethods::Descending) != 0;
  std::vector<std::size_t> order(entries_.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  auto exact = [&](std::size_t a, std::size_t b) { return entries_[a].compare(entries_[b]) < 0; };

  if (methods & SortMethods::Numeric) {
    // Each entry is parsed once, not at every comparison.
    std::vector<NumericKey> keys(entries_.size());
    std::transform(entries_.begin(), entries_.end(), keys.begin(), KeyOf);
    SortIndexes(order, descending, [&](std::size_t a, std::size_t b) {
      if (keys[a].rank != keys[b].rank) return keys[a].rank < keys[b].rank;
      if (keys[a].value != keys[b].value) return keys[a].value < keys[b].value;
      return exact(a, b);
    });
  } else if (methods & SortMethods::Exact) {
    SortIndexes(order, descending, exact);
  } else {
    // The user's locale at secondary strength (case ignored) with symbols and punctuation
    // ignored; ties and failures fall back to code units so that the order stays total.
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> collator(
        icu::Collator::createInstance(icu::Locale::getDefault(), status));
    if (U_SUCCESS(status)) {
      collator->setStrength(icu::Collator::SECONDARY);
      collator->setAttribute(UCOL_ALTERNATE_HANDLING, UCOL_SHIFTED, status);
    }
    if (U_FAILURE(status)) collator.reset();
    SortIndexes(order, descending, [&](std::size_t a, std::size_t b) {
      if (collator) {
        UErrorCode compareStatus = U_ZERO_ERROR;
        const UCollationResult result = collator->compare(entries_[a], entries_[b], compareStatus);
        if (U_SUCCESS(compareStatus) && result != UCOL_EQUAL) return result == UCOL_LESS;
      }
      return exact(a, b);
    });
  }

  std::vector<StringBuffer> sorted;
  sorted.reserve(entries_.size());
  for (std::size_t index : order)
    sorted.push_back(std::move(entries_[index]));
  entries_ = std::move(sorted);
}

}  // namespace Veskan
