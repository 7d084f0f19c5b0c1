#include "Mosquitto.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kel::testing {

namespace {

constexpr const char* kProgram = "/usr/sbin/mosquitto";

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool accepts(std::uint16_t port) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(port);
  const bool connected =
      ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(descriptor);
  return connected;
}

std::string ownName() {
  const passwd* entry = ::getpwuid(::geteuid());
  return entry != nullptr ? entry->pw_name : "root";
}

void require(int code, const char* what) {
  if (code != 0) throw std::runtime_error(std::string(what) + " failed");
}

}  // namespace

std::uint16_t freePort() {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  const bool bound = ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                     ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  ::close(descriptor);
  if (!bound) throw std::runtime_error(std::string("no free port: ") + std::strerror(errno));
  return ntohs(address.sin_port);
}

TemporaryFolder::TemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kel-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error(std::string("no temporary folder: ") + std::strerror(errno));
  }
  path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& text, unsigned mode) const {
  const auto file = path_ / name;
  std::ofstream(file) << text;
  ::chmod(file.c_str(), static_cast<mode_t>(mode));
  return file.string();
}

Mosquitto::Mosquitto(MosquittoOptions options) : options_(std::move(options)), port_(freePort()) {
  writeConfiguration();
}

Mosquitto::~Mosquitto() {
  end(SIGKILL);
}

void Mosquitto::writeConfiguration() const {
  if (!options_.file.empty()) {
    std::ostringstream text;
    text << std::ifstream(options_.file).rdbuf();
    const std::string usual = "listener 1883 ";
    std::string shipped = text.str();
    const auto at = shipped.find("\n" + usual);
    if (at == std::string::npos) throw std::runtime_error(options_.file + " has no such listener");
    shipped.replace(at + 1, usual.size(), "listener " + std::to_string(port_) + " ");
    static_cast<void>(folder_.write("mosquitto.conf", shipped + "user " + ownName() + "\nlog_dest none\n"));
    return;
  }
  std::ostringstream text;
  text << "listener " << port_ << " 127.0.0.1\n"
       << "user " << ownName() << "\n"
       << "set_tcp_nodelay true\n"
       << "max_inflight_messages 200\n"
       << "max_queued_messages 1000000\n"  // not 0: 2.0.11 then drops a link over a refused message
       << "log_dest file " << (folder_.path() / "log").string() << "\n"
       << "log_type error\nlog_type warning\nlog_type notice\n"
       << "persistence " << (options_.persistence ? "true" : "false") << "\n";
  if (options_.persistence) {
    text << "persistence_location " << folder_.path().string() << "/\nautosave_interval 1800\n";
  }
  if (options_.users.empty()) {
    text << "allow_anonymous true\n";
  } else {
    std::string lines;
    for (const auto& [user, password] : options_.users)
      lines.append(user).append(":").append(password).append("\n");
    const std::string file = folder_.write("users", lines);
    require(runProgram({"mosquitto_passwd", "-U", file}), "mosquitto_passwd");
    text << "allow_anonymous false\npassword_file " << file << "\n";
  }
  if (!options_.acl.empty()) text << "acl_file " << folder_.write("acl", options_.acl) << "\n";
  if (options_.tls) {
    makeCertificates(folder_, "localhost");
    text << "cafile " << (folder_.path() / "ca.pem").string() << "\n"
         << "certfile " << (folder_.path() / "server.pem").string() << "\n"
         << "keyfile " << (folder_.path() / "server.key").string() << "\n";
  }
  for (const std::string& line : options_.more) text << line << "\n";
  static_cast<void>(folder_.write("mosquitto.conf", text.str()));
}

void Mosquitto::start() {
  if (process_ > 0) return;
  const std::string configuration = (folder_.path() / "mosquitto.conf").string();
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(127);
    const int nothing = ::open("/dev/null", O_RDWR);
    ::dup2(nothing, 0);
    ::dup2(nothing, 1);
    ::dup2(nothing, 2);
    ::execl(kProgram, "mosquitto", "-c", configuration.c_str(), nullptr);
    ::_exit(127);
  }
  process_ = child;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!accepts(port_)) {
    int status = 0;
    if (::waitpid(process_, &status, WNOHANG) == process_) {
      process_ = -1;
      throw std::runtime_error("the broker did not start: " + log());
    }
    if (std::chrono::steady_clock::now() > until) {
      throw std::runtime_error("the broker does not accept connections: " + log());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void Mosquitto::stop() {
  end(SIGTERM);
}

void Mosquitto::kill() {
  end(SIGKILL);
}

void Mosquitto::pause() {
  ::kill(process_, SIGSTOP);
  int status = 0;
  ::waitpid(process_, &status, WUNTRACED);
}

void Mosquitto::resume() {
  ::kill(process_, SIGCONT);
}

void Mosquitto::end(int signal) {
  if (process_ <= 0) return;
  ::kill(process_, signal);
  ::kill(process_, SIGCONT);
  int status = 0;
  ::waitpid(process_, &status, 0);
  process_ = -1;
}

std::string Mosquitto::url(const std::string& options) const {
  return (options_.tls ? "mqtts://localhost:" : "mqtt://127.0.0.1:") + std::to_string(port_) +
         (options.empty() ? "" : "?" + options);
}

std::string Mosquitto::log() const {
  std::ifstream file(folder_.path() / "log");
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

int runProgram(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t child = -1;
  const int failed = ::posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), ::environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (failed != 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

void makeCertificates(const TemporaryFolder& folder, const std::string& host) {
  const std::string at = folder.path().string() + "/";
  require(runProgram({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                      "-nodes", "-days", "2", "-subj", "/CN=kel test authority", "-keyout", at + "ca.key",
                      "-out", at + "ca.pem"}),
          "openssl req (authority)");
  require(runProgram({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                      "-subj", "/CN=" + host, "-keyout", at + "server.key", "-out", at + "server.csr"}),
          "openssl req (server)");
  const std::string extension = folder.write("extension", "subjectAltName=DNS:" + host + "\n");
  require(runProgram({"openssl", "x509", "-req", "-in", at + "server.csr", "-CA", at + "ca.pem", "-CAkey",
                      at + "ca.key", "-CAcreateserial", "-days", "2", "-extfile", extension, "-out",
                      at + "server.pem"}),
          "openssl x509");
}

}  // namespace kel::testing
