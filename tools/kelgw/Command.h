// Command: what every subcommand shares: settings, exit codes, the order to stop, how it is registered.
//
// Each subcommand is one file with one add function: it describes its options and, when it is chosen, hands
// its action to Chosen. The action runs after the whole command line was understood.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "Output.h"

namespace CLI {
class App;
}

namespace kelgw {

/// What scripts rely on.
enum ExitCode : int { exitDone = 0, exitNotHeld = 1, exitBadInput = 2, exitUnreachable = 3 };

struct Settings {
  std::string store;  ///< empty: PVSS_STORE
  std::string kel;    ///< empty: KEL_URL, and without it the default address
  bool json = false;
  double limitSeconds = 5;

  [[nodiscard]] std::chrono::milliseconds limit() const {
    return std::chrono::milliseconds(static_cast<std::int64_t>(limitSeconds * 1000));
  }
};

/// Ends the command with this code and one line on standard error.
class CommandError : public std::runtime_error {
 public:
  CommandError(ExitCode exitCode, const std::string& text) : std::runtime_error(text), code(exitCode) {}
  const ExitCode code;
};

struct Context {
  const Settings& settings;
  Output& out;
  const std::atomic<bool>& stop;  ///< set by SIGINT and SIGTERM
};

using Action = std::function<int(Context&)>;

struct Chosen {
  Action action;
};

/// The time until which a command with --for SECONDS runs; none: until it is interrupted.
[[nodiscard]] std::optional<std::chrono::milliseconds> spanOf(std::optional<double> seconds);

// One for each subcommand, each in its own file.
void addApply(CLI::App& parent, Chosen& chosen);
void addCheck(CLI::App& parent, Chosen& chosen);
void addDpLs(CLI::App& parent, Chosen& chosen);
void addDpGet(CLI::App& parent, Chosen& chosen);
void addDpSet(CLI::App& parent, Chosen& chosen);
void addDpWatch(CLI::App& parent, Chosen& chosen);
void addKelLs(CLI::App& parent, Chosen& chosen);
void addKelSub(CLI::App& parent, Chosen& chosen);
void addKelPub(CLI::App& parent, Chosen& chosen);
void addStatus(CLI::App& parent, Chosen& chosen);
void addExplain(CLI::App& parent, Chosen& chosen);

/// The whole command line; separate from main so that tests can look at the help texts.
/// Results go to `results`, help to `results` too, errors to `remarks`.
int runCommandLine(int count, const char* const* arguments, std::FILE* results, std::FILE* remarks,
                   const std::atomic<bool>& stop);

}  // namespace kelgw
