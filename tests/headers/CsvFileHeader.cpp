// Includes nothing but its header: the header must stand alone, and its symbols must be
// exported from the shared library.
#include <veskan/CsvFile.h>

#include <gtest/gtest.h>

TEST(PublicHeaders, CsvFileStandsAlone) {
  Veskan::CsvFile file(u"/nonexistent/file.csv");
  EXPECT_FALSE(file.Readable());
  EXPECT_FALSE(file.ReadLine());
  Veskan::StringList tags;
  EXPECT_EQ(Veskan::Tags::SplitWithinTag(u"a, b", tags), 2);
  EXPECT_EQ(Veskan::Tags::JoinBetweenTags(tags), u"a<br />b");
  EXPECT_EQ(Veskan::StringBuffer(Veskan::FilePath(u"a//b")), u"a/b");
}
