// LineReader: bounded lines from a byte stream that arrives in pieces.
#include "foundation/LineReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Veskan {
namespace Detail {

namespace {

// A line, its carriage return and its line feed: enough bytes to tell where a line ends.
constexpr int Horizon = LineReader::MaxLineBytes + 2;

}  // namespace

LineReader::LineReader(std::unique_ptr<Source> source) : source_(std::move(source)) {}

bool LineReader::HasMore() {
  while (start_ == end_ && !exhausted_)
    Fill();
  return start_ < end_;
}

bool LineReader::Next(const unsigned char*& line, int& length) {
  for (;;) {
    const int available = end_ - start_;
    const unsigned char* begin = window_ + start_;
    const void* feed =
        std::memchr(begin, '\n', static_cast<std::size_t>(std::min(available, Horizon)));
    if (feed) {
      const int feedAt = static_cast<int>(static_cast<const unsigned char*>(feed) - begin);
      const int content = feedAt > 0 && begin[feedAt - 1] == '\r' ? feedAt - 1 : feedAt;
      if (content <= MaxLineBytes) {
        line = begin;
        length = content;
        start_ += feedAt + 1;
        return true;
      }
    }
    if (available >= Horizon || (exhausted_ && available > MaxLineBytes)) {
      line = begin;
      length = PieceLength(begin);
      start_ += length;
      return true;
    }
    if (exhausted_) {
      if (available == 0) return false;
      line = begin;
      length = available;
      start_ = end_;
      return true;
    }
    Fill();
  }
}

void LineReader::Fill() {
  if (start_ > 0) {
    std::memmove(window_, window_ + start_, static_cast<std::size_t>(end_ - start_));
    end_ -= start_;
    start_ = 0;
  }
  // Only called with fewer than Horizon bytes buffered, so a whole piece always fits.
  const std::int64_t count = source_ ? source_->Read(window_ + end_, ReadPieceBytes) : 0;
  if (count <= 0 || count > ReadPieceBytes) {
    exhausted_ = true;
    return;
  }
  end_ += static_cast<int>(count);
}

int LineReader::PieceLength(const unsigned char* begin) const {
  // Back up to the lead byte of a UTF-8 character that the limit would cut, so that a long line
  // of non-ASCII text does not turn into ill-formed pieces. Only lead bytes count, so a run of
  // stray continuation bytes is cut at the limit like any other bytes.
  int lead = MaxLineBytes - 1;
  while (lead > MaxLineBytes - 4 && (begin[lead] & 0xC0) == 0x80)
    --lead;
  const unsigned char first = begin[lead];
  const int size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
  return first >= 0xC0 && first <= 0xF4 && lead + size > MaxLineBytes ? lead : MaxLineBytes;
}

}  // namespace Detail
}  // namespace Veskan
