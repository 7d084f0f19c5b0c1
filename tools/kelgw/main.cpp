#include <csignal>
#include <cstdlib>

#include "Command.h"

namespace {

std::atomic<bool> stopWanted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler sets it");

extern "C" void askToStop(int /*signal*/) {
  stopWanted.store(true);
}

}  // namespace

int main(int count, char** arguments) {
  // The tool says itself what went wrong; the libraries' own lines are for whoever asks for them.
  ::setenv("KELGW_LOG", "off", 0);
  std::signal(SIGINT, askToStop);
  std::signal(SIGTERM, askToStop);
  // A closed pipe on standard output is an error of the write; a lost server is one of the libraries.
  std::signal(SIGPIPE, SIG_IGN);
  return kelgw::runCommandLine(count, arguments, stdout, stderr, stopWanted);
}
