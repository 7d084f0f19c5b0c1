// A writer of lines must neither stop nor end anybody, whatever its reader does.
#include "LineWriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "LinePipe.h"

namespace {

using test_support::Pipe;
using test_support::writerTo;

TEST(LineWriter, aLineIsThereWhenWriteReturns) {
  for (int i = 0; i < 20; ++i) {
    Pipe reader;
    reader.write("one\n");
    EXPECT_EQ(reader.readWhatIsThere(), "one\n");
  }
}

TEST(LineWriter, aReaderWhoDoesNotReadStopsNobodyAndGetsEverythingLater) {
  Pipe reader;
  reader.fill();
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    reader.write(line);  // returns
    expected += line;
  }
  EXPECT_EQ(reader.readUpTo("line 999\n"), expected);
}

TEST(LineWriter, whatDoesNotFitIsCountedAndTheCountStandsInItsPlace) {
  Pipe reader;
  reader.fill();
  const std::string wide(LineWriter::waitingBytes / 4, 'x');
  for (int i = 0; i < 4; ++i) reader.write(wide + "\n");  // the fourth finds no place any more
  reader.write(wide + "\n");
  reader.write("short\n");  // this one does
  for (int i = 0; i < 4; ++i) reader.write(wide + "\n");
  const std::string seen = reader.readUpTo("4 lost\n");
  EXPECT_EQ(seen, wide + "\n" + wide + "\n" + wide + "\n" + "2 lost\nshort\n4 lost\n");
}

TEST(LineWriter, aLineOfAnySizeHasAPlaceWhenNothingWaits) {
  Pipe reader;
  const std::string wide(2 * LineWriter::waitingBytes, 'x');
  reader.write(wide + "\n");
  EXPECT_EQ(reader.readUpTo("\n"), wide + "\n");
}

TEST(LineWriter, whatWaitsMayBeAsLongAsTheBoundAndNoLonger) {
  Pipe reader;
  reader.fill();
  reader.write("x");
  const std::string rest(LineWriter::waitingBytes - 1, 'y');
  reader.write(rest);  // just fits
  reader.write("z");
  EXPECT_TRUE(reader.readUpTo("lost\n") == "x" + rest + "1 lost\n");  // nobody wants to see them
}

TEST(LineWriter, oneByteThatWaitsLeavesNoRoomForALineAsLongAsTheBound) {
  Pipe reader;
  reader.fill();
  reader.write("x");
  reader.write(std::string(LineWriter::waitingBytes, 'y'));
  EXPECT_EQ(reader.readUpTo("lost\n"), "x1 lost\n");
}

TEST(LineWriter, theBoundIsForWhatWaitsAndNotForWhatWasWritten) {
  Pipe reader;
  const std::string line(LineWriter::waitingBytes / 16 - 1, 'x');
  for (int i = 0; i < 40; ++i) {
    reader.write(line + "\n");
    EXPECT_EQ(reader.readUpTo("\n"), line + "\n");
  }
}

TEST(LineWriter, aLineWithoutACharacterIsNoLossEither) {
  Pipe reader;
  reader.write("");
  reader.write("one\n");
  EXPECT_EQ(reader.readUpTo("\n"), "one\n");
}

TEST(LineWriter, aReaderWhoHasGoneEndsNobody) {
  ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);  // what the process would end by
  Pipe reader;
  reader.closeReader();
  for (int i = 0; i < 3; ++i) reader.write("nobody\n");
}

TEST(LineWriter, aLineThatWasRefusedInItsMiddleDoesNotTearTheNext) {
  std::FILE* const file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  LineWriter* const writer = writerTo(file);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{6, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  writer->write("0123456789\n");
  setrlimit(RLIMIT_FSIZE, &before);
  writer->write("next\n");
  std::array<char, 64> seen{};
  const ssize_t count = pread(fileno(file), seen.data(), seen.size(), 0);
  EXPECT_EQ(std::string(seen.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
            "012345\n1 lost\nnext\n");
}

TEST(LineWriter, aReaderWhoComesBackHearsHowManyLinesThereWere) {
  std::string folder = "/tmp/kelgw-lines.XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const std::string path = folder + "/fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  LineWriter* const writer = writerTo(std::fopen(path.c_str(), "w"));
  close(reader);
  writer->write("one\n");
  writer->write("two\n");
  reader = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  writer->write("three\n");
  std::array<char, 64> seen{};
  const ssize_t count = read(reader, seen.data(), seen.size());
  EXPECT_EQ(std::string(seen.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
            "2 lost\nthree\n");
  close(reader);
  unlink(path.c_str());
  rmdir(folder.c_str());
}

}  // namespace
