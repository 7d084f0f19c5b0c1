// Mosquitto: a private, real broker for tests and benches.
//
// Purpose    Starts Debian's mosquitto on a free port of the loopback interface, with its own folder and
//            its own configuration, and does to it what life does to brokers: stop, kill, pause, restart on
//            the same port.
// Ownership  Ends the process and removes the folder when it goes. If the test itself dies, the kernel ends
//            the broker (it is tied to the thread that started it).
// Thread     One thread uses it.
// Errors     start() throws std::runtime_error with the broker's own log: a test without its broker has
//            failed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace kel::testing {

struct MosquittoOptions {
  bool persistence = false;  ///< what is retained survives stop(), not kill()
  std::vector<std::pair<std::string, std::string>> users =
      {};                              ///< name, password; with any, nobody is anonymous
  std::string acl = {};                ///< lines of an access control file
  bool tls = false;                    ///< with a certificate for localhost by folder()/ca.pem
  std::vector<std::string> more = {};  ///< further configuration lines
  /// A configuration for port 1883 to use, on the free port, instead of all the above.
  std::string file = {};
};

/// A port of the loopback interface that nothing uses at this moment.
std::uint16_t freePort();

/// A folder of its own under the system's temporary folder, removed with the object.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  /// Writes a file with exactly this mode and returns its path.
  [[nodiscard]] std::string write(const std::string& name, const std::string& text,
                                  unsigned mode = 0600) const;

 private:
  std::filesystem::path path_;
};

class Mosquitto {
 public:
  /// Does not start it yet: the port is chosen, so that a client can already try.
  explicit Mosquitto(MosquittoOptions options = {});
  ~Mosquitto();
  Mosquitto(const Mosquitto&) = delete;
  Mosquitto& operator=(const Mosquitto&) = delete;

  /// Returns once the broker accepts connections.
  void start();
  void stop();  ///< in its own good order: SIGTERM
  void kill();  ///< at once: SIGKILL
  void pause();
  void resume();

  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] std::string url(const std::string& options = {}) const;  ///< mqtt://127.0.0.1:port[?options]
  [[nodiscard]] const TemporaryFolder& folder() const { return folder_; }
  [[nodiscard]] std::string log() const;

 private:
  void writeConfiguration() const;
  void end(int signal);

  const MosquittoOptions options_;
  const TemporaryFolder folder_;
  const std::uint16_t port_;
  pid_t process_ = -1;
};

/// Runs a program to its end; its exit code, or -1 when it could not run.
int runProgram(const std::vector<std::string>& words);

/// In `folder`: an authority `ca.pem`, and `server.pem` with `server.key`, made out to `host` by it.
void makeCertificates(const TemporaryFolder& folder, const std::string& host);

}  // namespace kel::testing
