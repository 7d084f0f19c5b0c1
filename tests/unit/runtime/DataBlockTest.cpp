#include "DataBlock.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

namespace {

std::string stored(const DataBlock& block) {
  return {block.getDataBlock(), block.getNumBytesStored()};
}

TEST(DataBlock, ofASizeHoldsNothing) {
  const DataBlock block(16);
  EXPECT_EQ(block.getCapacity(), 16U);
  EXPECT_EQ(block.getCurrentOffset(), 0U);
  EXPECT_EQ(block.getNumBytesStored(), 0U);
}

TEST(DataBlock, ofDataHoldsACopyAndStandsAtItsEnd) {
  std::string source = "abc";
  const DataBlock block(source.data(), 3);
  source = "xyz";
  EXPECT_EQ(stored(block), "abc");
  EXPECT_EQ(block.getCapacity(), 3U);
  EXPECT_EQ(block.getCurrentOffset(), 3U);
}

TEST(DataBlock, ofOneByteHoldsIt) {
  const DataBlock block("a", 1);
  EXPECT_EQ(stored(block), "a");
}

TEST(DataBlock, writeWithoutOffsetGoesBehindTheLastWrite) {
  DataBlock block(8);
  block.write("ab", 2);
  block.write("cd", 2);
  EXPECT_EQ(stored(block), "abcd");
  block.write("X", 1, 0);
  block.write("Y", 1);
  EXPECT_EQ(stored(block), "XYcd");
}

TEST(DataBlock, numBytesStoredNeverDecreases) {
  DataBlock block("abcdef", 6);
  block.write("X", 1, 0);
  EXPECT_EQ(block.getCurrentOffset(), 1U);
  EXPECT_EQ(block.getNumBytesStored(), 6U);
}

TEST(DataBlock, growsByWhatIsNeededAndSixtyFourBytes) {
  DataBlock block("abc", 3);
  block.write("defgh", 5, 3);
  EXPECT_EQ(block.getCapacity(), 5U + 3U + 64U);
  EXPECT_EQ(stored(block), "abcdefgh");
}

TEST(DataBlock, growsIntoANewBuffer) {
  DataBlock block("abc", 3);
  const char* const before = block.getDataBlock();
  block.write("d", 1);
  EXPECT_NE(block.getDataBlock(), before);  // the old one lives until the copy is made, so it is another
  EXPECT_EQ(stored(block), "abcd");
}

TEST(DataBlock, writeUpToTheCapacityDoesNotGrow) {
  DataBlock block(4);
  block.write("abcd", 4, 0);
  EXPECT_EQ(block.getCapacity(), 4U);
}

TEST(DataBlock, writeOfNothingChangesNothing) {
  DataBlock block("abc", 3);
  block.write("x", 0, 1);
  EXPECT_EQ(block.getCurrentOffset(), 3U);
  EXPECT_EQ(stored(block), "abc");
}

TEST(DataBlock, writeAtAnOffsetPastTheStoredBytesThrows) {
  DataBlock block("abc", 3);
  try {
    block.write("x", 1, 5);
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "DataBlock::write() Offset(5) larger then eof data (3)");
  }
  EXPECT_EQ(stored(block), "abc");
}

TEST(DataBlock, writeOfNothingPastTheStoredBytesThrowsToo) {
  DataBlock block(4);
  EXPECT_THROW(block.write("x", 0, 1), std::runtime_error);
}

TEST(DataBlock, writeFromItselfSurvivesGrowing) {
  DataBlock block("abcd", 4);
  block.write(block.getDataBlock(), 4, 4);
  EXPECT_EQ(stored(block), "abcdabcd");
}

TEST(DataBlock, sizeBeyondTheCountersIsRefused) {
  DataBlock block("abcd", 4);
  EXPECT_THROW(block.write("x", std::numeric_limits<unsigned int>::max(), 4), std::length_error);
}

}  // namespace
