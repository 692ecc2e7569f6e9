// ByteBuffer on the heap: construction, resizing, reading, writing, and whole files.
#include <veskan/ByteBuffer.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace Veskan {
namespace {

const unsigned char* Raw(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

std::string Text(const ByteBuffer& bytes) {
  return std::string(bytes, bytes.Size());
}

TEST(ByteBufferTest, DefaultIsAnEmptyTerminatedBuffer) {
  ByteBuffer empty;
  EXPECT_STREQ(static_cast<const char*>(empty), "");
  EXPECT_FALSE(empty);
  EXPECT_TRUE(!empty);
  EXPECT_EQ(empty.Size(), 0);
  unsigned char target[4] = {};
  EXPECT_EQ(empty.Read(0, target, 0, 1), 0);
  const ByteBuffer constant;
  EXPECT_FALSE(constant);
}

TEST(ByteBufferTest, ConstructionCopiesAndMoves) {
  ByteBuffer zeros(3);
  EXPECT_EQ(zeros.Size(), 3);
  EXPECT_EQ(std::memcmp(zeros.Data(), "\0\0\0\0", 4), 0);
  EXPECT_EQ(ByteBuffer(-5).Size(), 0);

  ByteBuffer part(Raw("abcdef"), 2, 3);
  EXPECT_STREQ(static_cast<const char*>(part), "cde");
  EXPECT_EQ(ByteBuffer(nullptr, 0, 3).Size(), 0);

  ByteBuffer copy(part);
  copy[0] = 'X';
  EXPECT_EQ(Text(part), "cde");
  EXPECT_EQ(Text(copy), "Xde");

  ByteBuffer moved(std::move(copy));
  EXPECT_EQ(Text(moved), "Xde");
  EXPECT_EQ(copy.Size(), 0);  // NOLINT: the moved-from buffer is empty by contract
  EXPECT_STREQ(static_cast<const char*>(copy), "");

  ByteBuffer assigned;
  assigned = "narrow";
  EXPECT_EQ(Text(assigned), "narrow");
  assigned = static_cast<const char*>(nullptr);
  EXPECT_EQ(assigned.Size(), 0);
  assigned = part;
  EXPECT_EQ(Text(assigned), "cde");
}

TEST(ByteBufferTest, ResizeKeepsTheTerminatorAndNeverShowsOldBytes) {
  ByteBuffer bytes;
  bytes = "abcdef";
  bytes.Resize(2);
  EXPECT_STREQ(static_cast<const char*>(bytes), "ab");
  bytes.Resize(5);  // grows within the old block: the bytes there must read as zeros again
  EXPECT_EQ(std::memcmp(bytes.Data(), "ab\0\0\0\0", 6), 0);
  bytes.Resize(100);
  EXPECT_EQ(bytes.Size(), 100);
  EXPECT_EQ(bytes[99], 0);
  EXPECT_EQ(bytes[100], 0);
  bytes.Resize(0);
  EXPECT_EQ(bytes.Size(), 0);
  EXPECT_STREQ(static_cast<const char*>(bytes), "");
}

TEST(ByteBufferTest, ReadChecksEveryArgument) {
  ByteBuffer bytes;
  bytes = "0123456789";
  unsigned char target[16] = {};
  EXPECT_EQ(bytes.Read(2, target, 1, 3), 3);
  EXPECT_EQ(std::memcmp(target,
                        "\0"
                        "234",
                        4),
            0);
  EXPECT_EQ(bytes.Read(-1, target, 0, 1), 0);
  EXPECT_EQ(bytes.Read(0, nullptr, 0, 1), 0);
  EXPECT_EQ(bytes.Read(0, target, -1, 1), 0);
  EXPECT_EQ(bytes.Read(0, target, 0, 0), 0);
  EXPECT_EQ(bytes.Read(8, target, 0, 3), 0);  // past the end: nothing, not a part
  EXPECT_EQ(bytes.Read(8, target, 0, 2), 2);
}

TEST(ByteBufferTest, WriteGrowsOrCuts) {
  ByteBuffer bytes;
  bytes = "abc";
  EXPECT_EQ(bytes.Write(5, Raw("xy"), 0, 2, true), 2);  // the gap is zero-filled
  EXPECT_EQ(bytes.Size(), 7);
  EXPECT_EQ(std::memcmp(bytes.Data(), "abc\0\0xy\0", 8), 0);
  EXPECT_EQ(bytes.Write(5, Raw("1234"), 1, 3, false), 2);  // cut to what fits
  EXPECT_EQ(std::memcmp(bytes.Data(),
                        "abc\0\0"
                        "23",
                        7),
            0);
  EXPECT_EQ(bytes.Write(7, Raw("z"), 0, 1, false), 0);
  EXPECT_EQ(bytes.Write(0, static_cast<const unsigned char*>(nullptr), 0, 1, true), 0);
  EXPECT_EQ(bytes.Write(-1, Raw("z"), 0, 1, true), 0);
  EXPECT_EQ(bytes.Write(0, Raw("z"), -1, 1, true), 0);
  EXPECT_EQ(bytes.Write(0, Raw("z"), 0, 0, true), 0);
  EXPECT_EQ(bytes.Size(), 7);
}

TEST(ByteBufferTest, WriteFromAnotherBufferAndFromItself) {
  ByteBuffer source;
  source = "0123456789";
  ByteBuffer target;
  EXPECT_EQ(target.Write(0, source, 8, 5, true), 2);  // cut to what the source has
  EXPECT_EQ(Text(target), "89");
  EXPECT_EQ(target.Write(0, source, 10, 1, true), 0);

  // Appending a buffer to itself makes it grow while the source bytes are being read.
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(source.Write(source.Size(), source, 0, source.Size(), true), 10 << i);
  EXPECT_EQ(source.Size(), 640);
  for (int i = 0; i < 640; ++i)
    ASSERT_EQ(source[i], '0' + i % 10) << i;
  EXPECT_EQ(source[640], 0);
}

TEST(ByteBufferTest, AppendingByteByByteKeepsEveryByte) {
  ByteBuffer bytes;
  for (int i = 0; i < 100000; ++i) {
    const unsigned char byte = static_cast<unsigned char>(i * 7);
    ASSERT_EQ(bytes.Append(&byte, 1), 1);
  }
  EXPECT_EQ(bytes.Size(), 100000);
  EXPECT_LT(bytes.Capacity(), 200000);
  for (int i = 0; i < 100000; i += 997)
    ASSERT_EQ(bytes[i], static_cast<unsigned char>(i * 7));
}

TEST(WholeFileTest, BytesToFileAndBack) {
  Testing::TemporaryFolder folder;
  ByteBuffer bytes;
  const std::string binary("bin\0ary\xFF", 8);
  bytes.Write(0, Raw(binary.data()), 0, 8, true);
  const StringBuffer path = folder.File("data.bin");
  ASSERT_TRUE(BytesToFile(bytes, path));
  EXPECT_EQ(Testing::ReadWholeFile(path), binary);
  EXPECT_EQ(Text(BytesFromFile(path)), binary);

  bytes = "short";
  ASSERT_TRUE(BytesToFile(bytes, path));  // truncates
  EXPECT_EQ(Text(BytesFromFile(path)), "short");
  EXPECT_FALSE(BytesToFile(bytes, folder.File("no/such/folder/file")));
}

TEST(WholeFileTest, UnreadableFilesGiveEmptyBuffers) {
  Testing::TemporaryFolder folder;
  const int descriptors = Testing::CountOpenDescriptors();
  EXPECT_EQ(BytesFromFile(folder.File("missing")).Size(), 0);
  EXPECT_EQ(BytesFromFile(StringBuffer(folder.Path().string())).Size(), 0);  // a folder
  EXPECT_EQ(BytesFromFile(nullptr).Size(), 0);
  EXPECT_EQ(Testing::CountOpenDescriptors(), descriptors);
}

TEST(WholeFileTest, FilesThatReportNoSizeAreReadToTheEnd) {
  const ByteBuffer status = BytesFromFile(u"/proc/self/status");
  EXPECT_GT(status.Size(), 100);
  EXPECT_NE(std::string(status, status.Size()).find("Name:"), std::string::npos);
}

}  // namespace
}  // namespace Veskan
