// CsvFile: comma-separated lines of a UTF-8 file, and the splitting of one line.
#include <veskan/CsvFile.h>

#include "foundation/CsvLine.h"
#include "foundation/LineReader.h"
#include "foundation/Utf.h"
#include "sys/File.h"

#include <cstring>
#include <string>
#include <utility>

namespace Veskan {

namespace Detail {

namespace {

// Appends the quoted field that starts at `text[position]` (its opening quotation mark) and
// moves `position` past the closing one. False when no quotation mark closes it.
bool TakeQuotedField(const char16_t* text, int length, int& position, StringList& fields) {
  std::u16string field;
  int next = position + 1;
  while (next < length) {
    const char16_t unit = text[next];
    if (unit != u'"') {
      field += unit;
      ++next;
      continue;
    }
    if (next + 1 == length || text[next + 1] == u',') {
      fields.Add(StringBuffer(field.data(), static_cast<int>(field.size())));
      position = next + 1;
      return true;
    }
    // Two in a row stand for one; a lone one inside the field is taken as it is.
    field += u'"';
    next += text[next + 1] == u'"' ? 2 : 1;
  }
  return false;
}

}  // namespace

bool SplitCsvLine(const unsigned char* bytes, int length, StringList& fields) {
  fields.RemoveAll();
  const StringBuffer line = UTF8to16(bytes, 0, length);  // empty for ill-formed UTF-8
  const char16_t* text = line.getBuffer();
  const int textLength = line.length();
  if (textLength == 0) return false;
  int position = 0;
  for (;;) {
    if (position < textLength && text[position] == u'"') {
      if (!TakeQuotedField(text, textLength, position, fields)) {
        fields.RemoveAll();
        return false;
      }
    } else {
      int end = position;
      while (end < textLength && text[end] != u',')
        ++end;
      fields.Add(StringBuffer(text, position, end - position));
      position = end;
    }
    if (position == textLength) return true;
    ++position;  // past the comma; a comma at the end leaves a last, empty field
  }
}

}  // namespace Detail

namespace {

// The file as a LineReader source.
class FileSource : public Detail::LineReader::Source {
 public:
  explicit FileSource(Sys::File file) : file_(std::move(file)) {}
  std::int64_t Read(unsigned char* destination, std::size_t capacity) override {
    int error = 0;
    return file_.Read(destination, capacity, error);
  }

 private:
  Sys::File file_;
};

}  // namespace

CsvFile::CsvFile(const char16_t* path) {
  int error = 0;
  // The system has no text mode: line ends are handled by the reader.
  Sys::File file =
      Sys::File::Open(Detail::PathToNative(path).c_str(), Sys::File::Mode::ReadExisting, error);
  if (file) {
    reader_ = std::make_unique<Detail::LineReader>(std::make_unique<FileSource>(std::move(file)));
  }
}

CsvFile::~CsvFile() = default;

bool CsvFile::Readable() {
  return reader_ && reader_->HasMore();
}

bool CsvFile::ReadLine() {
  fields_.RemoveAll();
  const unsigned char* line = nullptr;
  int length = 0;
  if (!reader_ || !reader_->Next(line, length)) return false;
  // Spreadsheets often save UTF-8 with a byte-order mark.
  if (std::exchange(atStart_, false) && length >= 3 && std::memcmp(line, "\xEF\xBB\xBF", 3) == 0) {
    line += 3;
    length -= 3;
  }
  return Detail::SplitCsvLine(line, length, fields_);
}

}  // namespace Veskan
