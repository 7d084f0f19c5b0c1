// What the gateway's own parsers stand on in a fuzzer: a plant in memory, a Kel library that only remembers,
// and standard output that goes nowhere while the gateway reports.
#pragma once

#include <fcntl.h>
#include <pvss/DynVar.h>
#include <pvss/TextVar.h>
#include <pvss/testing/MemoryPlant.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "FakeKel.h"
#include "KelApiManager.h"
#include "Require.h"

namespace gateway_fuzz {

class Quiet {
 public:
  Quiet() : kept_(::dup(STDOUT_FILENO)) { ::dup2(nowhere(), STDOUT_FILENO); }
  ~Quiet() {
    std::fflush(stdout);
    ::dup2(kept_, STDOUT_FILENO);
    ::close(kept_);
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  static int nowhere() {
    static const int descriptor = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    return descriptor;
  }
  const int kept_;
};

class Manager : public KelApiManager {
 public:
  using KelApiManager::writeQueuedUpdates;
};

/// Made anew now and then, because the fakes remember everything.
class World {
 public:
  /// With these elements, all of them float.
  explicit World(const std::vector<std::string>& elements) {
    KelApiManager::kelFactory = &kel;
    plant.setRecording(false);
    for (const std::string& element : elements) plant.addElement(element, DPELEMENT_FLOAT);
    manager.connectToData(3, nullptr, 0);
    settle();
  }
  ~World() { KelApiManager::kelFactory = nullptr; }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  static void settle() {
    for (int i = 0; i < 5; ++i) {
      long sec = 0;
      long usec = 0;
      ::Manager::dispatch(sec, usec);
    }
  }

  static DynVar texts(const std::vector<std::string>& entries) {
    DynVar list(TEXT_VAR);
    for (const std::string& entry : entries) list.append(TextVar(entry.c_str()));
    return list;
  }

  pvss::testing::MemoryPlant plant;
  FakeKelFactory kel;
  Manager manager;
};

inline World& world(const std::vector<std::string>& elements) {
  constexpr int inputsEach = 2000;
  // Never destroyed: at the end of the process what it stands on is gone before it.
  static auto& current = *new std::unique_ptr<World>();
  static int used = 0;
  if (!current || ++used > inputsEach) {
    used = 0;
    current.reset();
    current = std::make_unique<World>(elements);
  }
  return *current;
}

}  // namespace gateway_fuzz
