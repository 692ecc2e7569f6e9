// Cuts a byte stream into lines of bounded length: the reading half of CsvFile, apart from the
// file so that it can be fed in pieces of any size.
#ifndef VESKAN_FOUNDATION_LINEREADER_H
#define VESKAN_FOUNDATION_LINEREADER_H

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Veskan {
namespace Detail {

// A line is the bytes before a line feed, or before a carriage return and line feed, and holds
// at most MaxLineBytes; a longer line comes as pieces of MaxLineBytes, each ending before a
// UTF-8 character that would not fit whole. The bytes after the last line end form a last line
// when there are any. Reads ask the source for ReadPieceBytes at a time; memory stays fixed.
class LineReader {
 public:
  static constexpr int MaxLineBytes = 4096;
  static constexpr int ReadPieceBytes = 4096;

  // Where the bytes come from.
  class Source {
   public:
    virtual ~Source() = default;
    // Called whenever the reader needs more bytes: reads up to `capacity` bytes into
    // `destination` and returns the number read, 0 at the end, or a negative number on failure
    // (which the reader takes as the end).
    virtual std::int64_t Read(unsigned char* destination, std::size_t capacity) = 0;
  };

  explicit LineReader(std::unique_ptr<Source> source);
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // True when bytes are left; reads ahead when none are buffered.
  bool HasMore();
  // The next line without its line end. The bytes stay valid until the next call. False when
  // nothing is left.
  bool Next(const unsigned char*& line, int& length);

 private:
  // Moves the unread bytes to the front and reads one more piece after them.
  void Fill();
  // The length of a piece cut from a line too long to take whole.
  int PieceLength(const unsigned char* begin) const;

  std::unique_ptr<Source> source_;
  // Room for a whole line with CR LF, which decides where it ends, and for one more piece.
  unsigned char window_[MaxLineBytes + 2 + ReadPieceBytes];
  int start_ = 0;  // the unread bytes are [start_, end_)
  int end_ = 0;
  bool exhausted_ = false;  // the source reported its end or a failure
};

}  // namespace Detail
}  // namespace Veskan

#endif
