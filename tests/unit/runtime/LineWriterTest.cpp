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
#include <vector>

namespace {

std::string lossLine(unsigned long lines) {
  return std::to_string(lines) + " lost\n";
}

/// Its thread never ends, so neither may the writer and its stream.
LineWriter* writerTo(std::FILE* stream) {
  static auto* const all = new std::vector<LineWriter*>;
  all->push_back(new LineWriter(stream, &lossLine));
  return all->back();
}

/// A pipe, a stream on its writing end, and a writer of lines that lives as long as the process.
class Pipe {
 public:
  Pipe() {
    EXPECT_EQ(pipe(ends_.data()), 0);
    writer_ = writerTo(fdopen(ends_[1], "w"));
  }
  ~Pipe() { closeReader(); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void write(const std::string& line) { writer_->write(line); }
  void closeReader() {
    if (ends_[0] >= 0) {
      close(ends_[0]);
      ends_[0] = -1;
    }
  }
  /// Fills the pipe to the last byte.
  void fill() const {
    const int flags = fcntl(ends_[1], F_GETFL);
    fcntl(ends_[1], F_SETFL, flags | O_NONBLOCK);
    const std::string block(4096, '#');
    std::size_t size = block.size();
    while (size != 0) {
      if (::write(ends_[1], block.data(), size) < 0) size /= 2;
    }
    fcntl(ends_[1], F_SETFL, flags);
  }
  /// Everything up to and with `end`, without what fill() has put there.
  [[nodiscard]] std::string readUpTo(const std::string& end) const {
    std::string seen;
    std::array<char, 4096> some{};
    while (seen.find(end) == std::string::npos) {
      const ssize_t count = read(ends_[0], some.data(), some.size());
      if (count <= 0) return seen + "<end>";
      for (ssize_t i = 0; i < count; ++i) {
        if (some[static_cast<std::size_t>(i)] != '#') seen += some[static_cast<std::size_t>(i)];
      }
    }
    return seen;
  }

 private:
  std::array<int, 2> ends_{};
  LineWriter* writer_ = nullptr;
};

TEST(LineWriter, aLineIsThereWhenWriteReturns) {
  Pipe reader;
  reader.write("one\n");
  EXPECT_EQ(reader.readUpTo("\n"), "one\n");
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
