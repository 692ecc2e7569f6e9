// The splitting of one CSV line into fields: a pure function of the line's bytes.
#ifndef VESKAN_FOUNDATION_CSVLINE_H
#define VESKAN_FOUNDATION_CSVLINE_H

#include <veskan/StringBuffer.h>

namespace Veskan {
namespace Detail {

// Reads `length` bytes of one line (without its line end) as UTF-8 and splits them into
// `fields`, which is emptied first. True when at least one field was read; false, with no
// fields, for an empty line, for bytes that are not UTF-8 and for a quoted field without its
// closing quotation mark.
bool SplitCsvLine(const unsigned char* bytes, int length, StringList& fields);

}  // namespace Detail
}  // namespace Veskan

#endif
