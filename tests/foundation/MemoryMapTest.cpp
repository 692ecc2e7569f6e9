// ByteBuffer over mapped files, and every way mapping can fail.
#include <veskan/ByteBuffer.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace Veskan {
namespace {

constexpr char16_t HandleLocation[] =
    u"void Veskan::ByteBuffer::MemoryMap(HANDLE,HANDLE,boo,int,int)";

class MemoryMapTest : public ::testing::Test {
 protected:
  void SetUp() override { descriptors_ = Testing::CountOpenDescriptors(); }
  // No test may leave a descriptor open, whether its mapping worked or failed.
  void TearDown() override { EXPECT_EQ(Testing::CountOpenDescriptors(), descriptors_); }

  // Maps and expects the exception with exactly this code, location and message.
  template <typename Map>
  void ExpectFailure(Map map, int code, const StringBuffer& location, const StringBuffer& message) {
    ByteBuffer bytes;
    bytes = "previous";
    try {
      map(bytes);
      ADD_FAILURE() << "no exception";
    } catch (const MemoryMapException& failure) {
      EXPECT_EQ(failure.Code(), code);
      EXPECT_EQ(failure.Location(), location);
      EXPECT_EQ(failure.Message(), message);
      EXPECT_EQ(std::string(failure.what()), message.ToUTF8());
    }
    EXPECT_FALSE(bytes.IsMapped());
    EXPECT_EQ(bytes.Size(), 0);
  }

  Testing::TemporaryFolder folder_;
  int descriptors_ = 0;
};

TEST_F(MemoryMapTest, ReadOnlyViewsOfAWholeFileAndOfARange) {
  const StringBuffer path = folder_.WriteFile("quiz.txt", "0123456789");
  ByteBuffer bytes;
  bytes.MemoryMap(path, false);
  EXPECT_TRUE(bytes.IsMapped());
  EXPECT_EQ(std::string(bytes, bytes.Size()), "0123456789");

  bytes.MemoryMap(path, false, 3, 4);  // an offset that is not page-aligned
  EXPECT_EQ(std::string(bytes, bytes.Size()), "3456");
  bytes.MemoryMap(path, false, 7);
  EXPECT_EQ(std::string(bytes, bytes.Size()), "789");

  EXPECT_EQ(bytes.Write(0, reinterpret_cast<const unsigned char*>("x"), 0, 1, false), 0);
  const ByteBuffer copy(bytes);
  EXPECT_FALSE(copy.IsMapped());
  EXPECT_STREQ(static_cast<const char*>(copy), "789");
  bytes.Unmap();
  EXPECT_FALSE(bytes.IsMapped());
  EXPECT_STREQ(static_cast<const char*>(bytes), "");
}

TEST_F(MemoryMapTest, WritableMappingCreatesAndExtendsTheFile) {
  const StringBuffer path = folder_.File("new.bin");
  {
    ByteBuffer bytes;
    bytes.MemoryMap(path, true, 0, 10);
    EXPECT_EQ(bytes.Size(), 10);
    EXPECT_EQ(bytes.Write(2, reinterpret_cast<const unsigned char*>("hi"), 0, 2, false), 2);
  }
  EXPECT_EQ(Testing::ReadWholeFile(path), std::string("\0\0hi\0\0\0\0\0\0", 10));

  ByteBuffer bytes;
  bytes.MemoryMap(path, true, 8, 4);  // past the end: the file grows to 12 bytes
  EXPECT_EQ(bytes.Size(), 4);
  bytes.Unmap();
  EXPECT_EQ(Testing::ReadWholeFile(path).size(), 12u);
}

TEST_F(MemoryMapTest, AMappedBufferShrinksButDoesNotGrow) {
  ByteBuffer bytes;
  bytes.MemoryMap(folder_.WriteFile("ten.txt", "0123456789"), false);
  bytes.Resize(4);
  EXPECT_EQ(bytes.Size(), 4);
  bytes.Resize(10);
  EXPECT_EQ(bytes.Size(), 10);
  const StringBuffer location(u"public void Veskan::ByteBuffer::Resize(int)");
  try {
    bytes.Resize(11);
    ADD_FAILURE() << "no exception";
  } catch (const MemoryMapException& failure) {
    EXPECT_EQ(failure.Code(), static_cast<int>(0x80004001u));
    EXPECT_EQ(failure.Location(), location);
    EXPECT_EQ(failure.Message(),
              u"public void Veskan::ByteBuffer::Resize(int): not implemented: resizing a memory "
              u"mapped buffer");
  }
  EXPECT_TRUE(bytes.IsMapped());
  bytes.Resize(0);  // an empty buffer no longer needs the view
  EXPECT_FALSE(bytes.IsMapped());
}

TEST_F(MemoryMapTest, FailuresOfTheNamedForm) {
  const StringBuffer missing = folder_.File("missing.txt");
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(missing, false); }, 2, missing,
                missing + u": CreateFile failed: error 2: No such file or directory");

  const StringBuffer empty = folder_.WriteFile("empty.txt", "");
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(empty, false); }, 87, empty,
                empty + u": cannot map a 0 byte file");
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(empty, true); }, 22, empty,
                empty + u": CreateFileMapping 0 bytes failed: error 22: Invalid argument");

  const StringBuffer ten = folder_.WriteFile("ten.txt", "0123456789");
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(ten, false, 5, 100); }, 87, ten,
                ten + u": map view 5+100 bytes is greater than 10 bytes file size");
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(ten, false, -1, 2); }, 22, ten,
                ten + u": MapViewOfFile -1+2 bytes failed: error 22: Invalid argument");

  const StringBuffer folder(folder_.Path().string());
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(folder, true); }, 21, folder,
                folder + u": CreateFile failed: error 21: Is a directory");
}

TEST_F(MemoryMapTest, TheHandleFormDuplicatesTheCallersHandles) {
  const StringBuffer path = folder_.WriteFile("handle.txt", "handle form");
  const int file = ::open(path.ToUTF8().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0);
  ByteBuffer bytes;
  bytes.MemoryMap(file, InvalidFileHandle, true, 7, 4);
  ::close(file);  // the buffer holds its own duplicate
  EXPECT_EQ(std::string(bytes, bytes.Size()), "form");
  bytes[0] = 'F';
  bytes.Unmap();
  EXPECT_EQ(Testing::ReadWholeFile(path), "handle Form");
}

TEST_F(MemoryMapTest, FailuresOfTheHandleForm) {
  const StringBuffer location(HandleLocation);
  ExpectFailure([](ByteBuffer& b) { b.MemoryMap(InvalidFileHandle, InvalidFileHandle, false); }, 9,
                location,
                location + u": DuplicateHandle(hFile) failed: error 9: Bad file descriptor");

  const StringBuffer emptyPath = folder_.WriteFile("empty.txt", "");
  const int empty = ::open(emptyPath.ToUTF8().c_str(), O_RDONLY | O_CLOEXEC);
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(empty, 12345, false); }, 9, location,
                location + u": DuplicateHandle(hFileMapping) failed: error 9: Bad file descriptor");
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(empty, InvalidFileHandle, false); }, 87, location,
                location + u": canot map file 0 bytes in length");
  ::close(empty);

  const int readOnly =
      ::open(folder_.WriteFile("ro.txt", "data").ToUTF8().c_str(), O_RDONLY | O_CLOEXEC);
  ExpectFailure([&](ByteBuffer& b) { b.MemoryMap(readOnly, InvalidFileHandle, true); }, 13,
                location,
                location + u": CreateFileMapping 4 bytes failed: error 13: Permission denied");
  ::close(readOnly);
}

}  // namespace
}  // namespace Veskan
