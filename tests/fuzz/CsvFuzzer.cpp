// Fuzzes cutting CSV files into lines and lines into fields.
#include <veskan/StringBuffer.h>

#include "FuzzInput.h"
#include "foundation/CsvLine.h"
#include "foundation/LineReader.h"

#include <algorithm>
#include <cstring>
#include <memory>

using namespace Veskan;

namespace {

// Hands out the input in pieces whose sizes the input's first byte chooses.
class PieceSource : public Detail::LineReader::Source {
 public:
  PieceSource(const std::uint8_t* data, std::size_t size, std::size_t piece)
      : data_(data), size_(size), piece_(piece) {}
  std::int64_t Read(unsigned char* destination, std::size_t capacity) override {
    const std::size_t count = std::min({capacity, piece_, size_ - offset_});
    std::memcpy(destination, data_ + offset_, count);
    offset_ += count;
    return static_cast<std::int64_t>(count);
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t piece_;
  std::size_t offset_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t piece = 1 + data[0] * 37;
  Detail::LineReader reader(std::make_unique<PieceSource>(data + 1, size - 1, piece));
  StringList fields;
  std::size_t consumed = 0;
  const unsigned char* line = nullptr;
  int length = 0;
  while (reader.Next(line, length)) {
    Fuzzing::Require(length >= 0 && length <= Detail::LineReader::MaxLineBytes);
    consumed += static_cast<std::size_t>(length);
    Fuzzing::Require(consumed <= size - 1);
    if (Detail::SplitCsvLine(line, length, fields)) {
      Fuzzing::Require(fields.Count() >= 1 && fields.Count() <= length + 1);
    } else {
      Fuzzing::Require(fields.Count() == 0);
    }
  }
  return 0;
}
