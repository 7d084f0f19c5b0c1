// TransportSuite: what every transport must do, and what a Kel session must do on every transport.
//
// A transport's own test file names a world to run it in:
//   INSTANTIATE_TEST_SUITE_P(Loopback, TransportSuite, ::testing::Values(&makeLoopbackWorld), worldName);
//   INSTANTIATE_TEST_SUITE_P(Loopback, SessionSuite, ::testing::Values(&makeLoopbackWorld), worldName);
#pragma once

#include <gtest/gtest.h>
#include <kel/Kel.h>

#include <memory>
#include <string>

#include "RecordingListener.h"
#include "transport/KelTransport.h"

namespace kel::testing {

/// A broker of its own for one test.
class TransportWorld {
 public:
  virtual ~TransportWorld() = default;
  /// The broker's address with these options ("group=g&qos=1").
  virtual std::string url(const std::string& options) = 0;
  /// Every link ends, and can be made again. What is retained stays.
  virtual void cutLinks() = 0;
};

using MakeWorld = std::unique_ptr<TransportWorld> (*)();

class WorldTest : public ::testing::TestWithParam<MakeWorld> {
 protected:
  WorldTest() : world(GetParam()()) {}

  const std::unique_ptr<TransportWorld> world;
};

/// A transport with a listener that writes down what it is told.
class SuiteClient {
 public:
  SuiteClient(TransportWorld& world, const std::string& name);
  /// Ends abruptly unless it has been stopped.
  ~SuiteClient();
  SuiteClient(const SuiteClient&) = delete;
  SuiteClient& operator=(const SuiteClient&) = delete;

  void start();
  /// Starts and waits for the link.
  [[nodiscard]] bool up();
  void stop(bool clean);
  /// Subscribes and waits for the answer.
  [[nodiscard]] bool subscribe(const std::string& filter);
  /// Publishes and waits for the broker's word.
  [[nodiscard]] bool publish(const std::string& topic, const std::string& payload, bool retain, int qos = 1);
  [[nodiscard]] bool waitForMessages(std::size_t count);
  /// "topic=payload", with a '!' behind it when it was retained.
  [[nodiscard]] std::vector<std::string> messages();

  RecordingListener listener;
  std::unique_ptr<KelTransport> transport;

 private:
  const std::string name_;
  std::uint64_t nextToken_ = 1;
};

class TransportSuite : public WorldTest {};
class SessionSuite : public WorldTest {};

}  // namespace kel::testing
