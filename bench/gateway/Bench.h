// What the benchmarks of the gateway inside one process share: their numbers, their names, the CPU time, and
// a standard output of their own.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>

namespace bench {

struct Switch {
  const char* name;  ///< with its dashes; the number follows
  int& target;
};

/// Takes the numbers from the command line; whether `--json` stands there.
inline bool readSwitches(int argc, char** argv, std::initializer_list<Switch> switches) {
  bool json = false;
  for (int i = 1; i < argc; ++i) {
    json = json || std::strcmp(argv[i], "--json") == 0;
    for (const Switch& one : switches) {
      if (std::strcmp(argv[i], one.name) == 0 && i + 1 < argc) {
        one.target = static_cast<int>(std::strtol(argv[++i], nullptr, 10));
        break;
      }
    }
  }
  return json;
}

inline std::string publicationName(int publication) {
  return "bench/" + std::to_string(publication);
}
inline std::string tagName(int field) {
  return "field" + std::to_string(field);
}
inline std::string elementName(int publication, int field) {
  return "B" + std::to_string(publication) + ".f" + std::to_string(field);
}

/// Seconds of CPU that the whole process has used so far.
inline double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// While it lives, standard output goes nowhere: the gateway tells of every element there, and the figures
/// are to stand alone.
class Quiet {
 public:
  Quiet() : kept_(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
      std::perror("bench: /dev/null");
    }
  }
  ~Quiet() {
    std::fflush(stdout);
    dup2(kept_, STDOUT_FILENO);
    close(kept_);
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  int kept_;
};

}  // namespace bench
