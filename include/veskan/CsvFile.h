// Helpers for the files and texts that hosts import: CsvFile reads comma-separated lines, Tags
// converts tag lists to and from text, FilePath is a file-system path value.
#ifndef VESKAN_CSVFILE_H
#define VESKAN_CSVFILE_H

#include <veskan/Export.h>
#include <veskan/StringBuffer.h>

#include <memory>

namespace Veskan {

namespace Detail {
class LineReader;
}  // namespace Detail

// Reads a comma-separated UTF-8 text file one line at a time, each line into a list of fields.
//
// A line ends at a line feed, at a carriage return and line feed, or after 4096 bytes: a longer
// line is read in pieces of at most 4096 bytes, each taken as a line of its own (a piece ends
// before a UTF-8 character that would not fit whole). A byte-order mark at the start of the file
// is skipped. Fields are separated by commas; a field that begins with a quotation mark runs to
// the quotation mark followed by a comma or by the end of the line, holds commas as ordinary
// characters, and reads two quotation marks in a row as one. Other fields are taken as they are.
// A quoted field never spans lines. A file that cannot be opened or read reads no line; a line
// that is not UTF-8 is rejected like any malformed line. Memory use is bounded by the line limit.
//
// Thread safety: none; use an object from one thread at a time.
class VESKAN_API CsvFile {
 public:
  // The most bytes of one line, line end included.
  static constexpr int MaxLineBytes = 4096;

  // Opens the file at `path` for reading; a file that cannot be opened leaves the object
  // unreadable.
  explicit CsvFile(const char16_t* path);
  virtual ~CsvFile();
  CsvFile(const CsvFile&) = delete;
  CsvFile& operator=(const CsvFile&) = delete;

  // True when the file is open and has bytes left to read. May read ahead into the object's
  // buffer.
  bool Readable();
  // Reads the next line into Fields(). False, with no fields, at the end of the file, for an
  // empty line, and for a malformed line (an unterminated quoted field, or bytes that are not
  // UTF-8); reading can go on after a false line until Readable() is false.
  bool ReadLine();
  // The fields of the line last read.
  const StringList& Fields() const { return fields_; }

 private:
  std::unique_ptr<Detail::LineReader> reader_;  // null when the file could not be opened
  bool atStart_ = true;                         // a byte-order mark is still possible
  StringList fields_;
};

// Converts between a list of tags and its text forms. Within one tag element the tags are
// separated by commas or semicolons ("math, fractions"); between tag elements by the line-break
// element "<br />". The split functions append to `list`, normalise the white space of every
// entry (NormalizeWhitespace) and drop the entries left empty, and return the number appended.
class VESKAN_API Tags {
 public:
  // Splits at every ',' and ';'.
  static int SplitWithinTag(const char16_t* text, StringList& list);
  // The entries joined by ", ", as given (an entry holding a comma splits into two again).
  static StringBuffer JoinWithinTag(const StringList& list);
  // Splits at every line-break element ("<br />", and "<br/>" and "<br>" in any letter case) and
  // at every line end.
  static int SplitBetweenTags(const char16_t* text, StringList& list);
  // The entries joined by "<br />", as given.
  static StringBuffer JoinBetweenTags(const StringList& list);
  // The white-space folding that the split functions apply to each entry: NormalizeWhitespace.
  static StringBuffer NormalizeWhitespace(const char16_t* text);
};

// A file-system path as text. Runs of '/' are folded into one, so that paths joined by plain
// concatenation compare equal; nothing else is rewritten ("." and ".." keep their meaning through
// symbolic links, and a backslash is an ordinary file-name character on this system).
//
// Thread safety: a plain value.
class VESKAN_API FilePath {
 public:
  FilePath(const char16_t* path);
  FilePath(const StringBuffer& path);

  operator StringBuffer() const { return path_; }
  const StringBuffer& Text() const { return path_; }

 private:
  StringBuffer path_;
};

}  // namespace Veskan

#endif
