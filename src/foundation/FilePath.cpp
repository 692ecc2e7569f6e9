// FilePath: a file-system path value.
#include <veskan/CsvFile.h>

#include <string>

namespace Veskan {

namespace {

// `path` with every run of '/' folded into one.
StringBuffer FoldSeparators(const char16_t* path) {
  std::u16string folded;
  for (const char16_t* next = SafeStringLiteral(path); *next; ++next) {
    if (*next == u'/' && !folded.empty() && folded.back() == u'/') continue;
    folded += *next;
  }
  return StringBuffer(folded.data(), static_cast<int>(folded.size()));
}

}  // namespace

FilePath::FilePath(const char16_t* path) : path_(FoldSeparators(path)) {}

FilePath::FilePath(const StringBuffer& path) : path_(FoldSeparators(path.c_str())) {}

}  // namespace Veskan
