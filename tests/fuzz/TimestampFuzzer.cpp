// Fuzzes reading time stamps: any text either gives 0 or a time that formats and reads back.
#include <veskan/Timepoint.h>

#include "FuzzInput.h"

using namespace Veskan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const StringBuffer text = Fuzzing::Utf16(data, size);
  for (const auto conversion : {DateTimeConversions::Iso8601, DateTimeConversions::Rfc1123}) {
    const std::uint64_t time = ParseTimestamp(text.c_str(), conversion);
    if (time == 0) continue;
    const int style = conversion == DateTimeConversions::Rfc1123 ? TimestampStyles::Rfc1123
                                                                 : TimestampStyles::Iso8601;
    const StringBuffer printed = FormatTimestamp(time, style);
    Fuzzing::Require(ParseTimestamp(printed.c_str(), conversion) == time);
  }
  return 0;
}
