// Who waits for a line to be written, for how long, and who does not. How long is not measured but counted: a
// caller who waits goes to wait once a moment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>

#include "LinePipe.h"

namespace {

using test_support::atLoss;
using test_support::HoldAtLoss;
using test_support::NoNewThreads;
using test_support::Pipe;
using test_support::timesWaited;
using test_support::waits;
using test_support::waitsToWrite;

constexpr int mostMoments = 10;  // for a machine that is slow

const std::string wide(LineWriter::waitingBytes / 4 * 3, 'x');  // not to be seen in a failure

/// A line that is counted as lost, because there is no thread to write it.
void loseOne(Pipe& reader) {
  const NoNewThreads none;
  reader.write("one\n");
}

TEST(LineWriterWait, aReaderWhoDoesNotReadIsWaitedForAMomentAndNotAgain) {
  long fewest = mostMoments;
  for (int i = 0; i < 3; ++i) {
    Pipe reader;
    reader.fill();
    const long first = waitsToWrite(reader, "one\n");
    EXPECT_GE(first, 1);
    EXPECT_LT(first, mostMoments / 2);
    fewest = std::min(fewest, waitsToWrite(reader, "two\n"));
  }
  // The system may have had a reason of its own to let this thread wait, but not each time.
  EXPECT_EQ(fewest, 0);
}

TEST(LineWriterWait, aReaderWhoHasReadEverythingSoFarIsWaitedFor) {
  Pipe reader;
  reader.write("one\n");
  reader.fill();
  EXPECT_GE(waitsToWrite(reader, "two\n"), 1);
  EXPECT_EQ(reader.readUpTo("two\n"), "one\ntwo\n");
}

TEST(LineWriterWait, aReaderWhoHasCaughtUpIsWaitedForAgain) {
  Pipe reader;
  HoldAtLoss hold;
  reader.fill();
  reader.write(wide);
  reader.write(wide);  // finds no place
  EXPECT_TRUE(reader.readUpTo(wide) == wide);
  EXPECT_NE(hold.awaitHeld(), 0);  // so the first line is settled
  reader.fill();
  EXPECT_GE(waitsToWrite(reader, "two\n"), 1);
  hold.release();
  EXPECT_EQ(reader.readUpTo("two\n"), "1 lost\ntwo\n");
}

TEST(LineWriterWait, aReaderForWhomLinesStillWaitIsNotWaitedFor) {
  Pipe reader;
  HoldAtLoss hold;
  reader.fill();
  reader.write(wide);
  reader.write(wide);  // finds no place
  reader.write("two\n");
  reader.write("three\n");
  EXPECT_TRUE(reader.readUpTo(wide) == wide);
  EXPECT_NE(hold.awaitHeld(), 0);  // before the second line, and the third waits
  EXPECT_LT(waitsToWrite(reader, "four\n"), mostMoments / 2);
  hold.release();
  EXPECT_EQ(reader.readUpTo("four\n"), "1 lost\ntwo\nthree\nfour\n");
}

TEST(LineWriterWait, aReaderWhoHasMadeRoomIsWaitedForBeforeTheWriterKnows) {
  Pipe reader;
  HoldAtLoss hold;
  reader.fill();
  reader.write(wide);
  reader.write(wide);  // finds no place
  reader.write("two\n");
  EXPECT_TRUE(reader.readUpTo(wide) == wide);
  EXPECT_NE(hold.awaitHeld(), 0);  // before the second line, the last
  hold.releaseWhenWaited(1);
  EXPECT_GE(waitsToWrite(reader, "three\n"), 1);
  hold.release();
  EXPECT_EQ(reader.readUpTo("three\n"), "1 lost\ntwo\nthree\n");
}

TEST(LineWriterWait, aLineThatFindsNoPlaceMakesNobodyWaitForTheNext) {
  long fewest = mostMoments;
  for (int i = 0; i < 3; ++i) {
    Pipe reader;
    HoldAtLoss hold;
    reader.fill();
    reader.write(wide);
    reader.write(wide);  // finds no place
    reader.write("two\n");
    EXPECT_TRUE(reader.readUpTo(wide) == wide);
    EXPECT_NE(hold.awaitHeld(), 0);  // before the second line, the last
    reader.write(
        std::string(LineWriter::waitingBytes, 'x'));  // finds no place, though the reader has made room
    reader.fill();
    fewest = std::min(fewest, waitsToWrite(reader, "three\n"));
    hold.release();
    EXPECT_EQ(reader.readUpTo("three\n"), "1 lost\ntwo\n1 lost\nthree\n");
  }
  EXPECT_EQ(fewest, 0);
}

TEST(LineWriterWait, whereThereIsRoomItIsTheMachineThatIsSlowAndIsWaitedFor) {
  Pipe reader;
  loseOne(reader);
  HoldAtLoss hold;
  hold.releaseWhenWaited(3);
  EXPECT_GE(waitsToWrite(reader, "two\n"), 3);
  hold.release();
  EXPECT_EQ(reader.readUpTo("two\n"), "1 lost\ntwo\n");
}

TEST(LineWriterWait, aStreamThatRefusesToWaitIsWaitedForByTheWriter) {
  Pipe reader;
  reader.fill();
  reader.setNonBlocking(true);
  loseOne(reader);
  HoldAtLoss hold;
  reader.write("two\n");
  const pid_t writer = hold.awaitHeld();
  const long before = timesWaited(writer);
  hold.release();
  while (timesWaited(writer) == before) {  // one that only tries again and again never comes to wait
    sched_yield();
  }
  EXPECT_EQ(reader.readUpTo("two\n"), "1 lost\ntwo\n");
}

TEST(LineWriterThread, waitsWhileThereIsNothingToWrite) {
  Pipe reader;
  loseOne(reader);
  HoldAtLoss hold;
  hold.releaseWhenWaited(1);
  reader.write("two\n");
  EXPECT_EQ(reader.readUpTo("two\n"), "1 lost\ntwo\n");
  const pid_t writer = hold.awaitHeld();
  while (!waits(writer)) {  // one that only looks again and again never does
    sched_yield();
  }
}

TEST(LineWriterThread, thatCannotBeHadIsAskedForWithTheNextLine) {
  Pipe reader;
  {
    const NoNewThreads none;
    reader.write("one\n");
    reader.write("two\n");
  }
  reader.write("three\n");
  EXPECT_EQ(reader.readUpTo("three\n"), "2 lost\nthree\n");
}

TEST(LineWriterThread, hasNoSignalsAndTheCallerKeepsHis) {
  Pipe reader;
  loseOne(reader);
  sigset_t ofWriter;
  sigemptyset(&ofWriter);
  atLoss() = [&ofWriter] { pthread_sigmask(SIG_SETMASK, nullptr, &ofWriter); };
  reader.write("two\n");
  EXPECT_EQ(reader.readUpTo("two\n"), "1 lost\ntwo\n");
  sigset_t ofCaller;
  pthread_sigmask(SIG_SETMASK, nullptr, &ofCaller);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGUSR1, SIGCHLD, SIGALRM}) {
    EXPECT_EQ(sigismember(&ofWriter, signal), 1) << signal;
    EXPECT_EQ(sigismember(&ofCaller, signal), 0) << signal;
  }
}

}  // namespace
