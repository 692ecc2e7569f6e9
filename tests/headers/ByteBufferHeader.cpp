// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/ByteBuffer.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, ByteBufferStandsAlone) {
  const Veskan::ByteBuffer bytes = Veskan::UTF16to8(u"abc");
  EXPECT_EQ(Veskan::Encode64(bytes), u"YWJj");
  EXPECT_THROW(Veskan::ByteBuffer().MemoryMap(u"/nonexistent/file", false),
               Veskan::MemoryMapException);
}
