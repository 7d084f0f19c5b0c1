// RedisServer: a private server on a unix socket in a temporary folder, ended by its own process id.
//
// The folder outlives a kill(), so that start() brings back what an append-only file kept.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace storetest {

class RedisServer {
 public:
  enum class Keep { nothing, everything };  ///< everything: an append-only file, written before each answer

  explicit RedisServer(Keep keep = Keep::nothing, bool startNow = true) : keep_(keep) {
    std::string pattern = std::filesystem::temp_directory_path().string() + "/kelgw-redis-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    folder_ = pattern;
    if (startNow) start();
  }
  ~RedisServer() {
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  [[nodiscard]] std::string socket() const { return folder_ + "/s"; }
  [[nodiscard]] std::string address() const { return "redis+unix://" + socket(); }
  [[nodiscard]] const std::string& folder() const { return folder_; }

  void start(const std::vector<std::string>& more = {}) {
    ::unlink(socket().c_str());
    std::vector<std::string> words{"redis-server",  "--port", "0", "--unixsocket", socket(),  "--dir",
                                   folder_,         "--save", "",  "--loglevel",   "warning", "--logfile",
                                   folder_ + "/log"};
    const bool keeps = keep_ == Keep::everything;
    words.insert(words.end(),
                 {"--appendonly", keeps ? "yes" : "no", "--appendfsync", keeps ? "always" : "no"});
    words.insert(words.end(), more.begin(), more.end());
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    process_ = ::fork();
    if (process_ < 0) throw std::runtime_error("fork failed");
    if (process_ == 0) {
      const int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, STDOUT_FILENO);
      ::execvp(arguments[0], arguments.data());
      ::_exit(127);
    }
    for (int i = 0; i < 1000; ++i) {
      if (answers()) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("redis-server did not come up in " + folder_);
  }

  /// Ends it as a power cut would.
  void kill() {
    if (process_ <= 0) return;
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
    process_ = -1;
  }

  /// Holds it as a machine that hangs, and lets it go on.
  void hold() const { ::kill(process_, SIGSTOP); }
  void letGo() const { ::kill(process_, SIGCONT); }

  /// A port of the loopback that nobody uses now.
  static std::string freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("no free port");
    }
    ::close(fd);
    return std::to_string(ntohs(address.sin_port));
  }

  /// What redis-cli prints for the words.
  std::string cli(const std::vector<std::string>& words) const {
    std::string command = "redis-cli -s '" + socket() + "'";
    for (const std::string& word : words) command += " '" + word + "'";
    command += " 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string out;
    char piece[4096];
    while (std::size_t got = ::fread(piece, 1, sizeof piece, pipe)) out.append(piece, got);
    ::pclose(pipe);
    if (out.ends_with('\n')) out.pop_back();
    // Behind an error stands an empty line more.
    if (out.ends_with('\n') && out.find('\n') == out.size() - 1) out.pop_back();
    return out;
  }

 private:
  /// Whether it takes connections and has loaded its data.
  [[nodiscard]] bool answers() const {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket().c_str(), sizeof address.sun_path - 1);
    char reply[8] = {};
    const bool good = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                      ::send(fd, "PING\r\n", 6, MSG_NOSIGNAL) == 6 && ::recv(fd, reply, 5, 0) == 5 &&
                      (std::strncmp(reply, "+PONG", 5) == 0 || std::strncmp(reply, "-NOAU", 5) == 0);
    ::close(fd);
    return good;
  }

  Keep keep_;
  std::string folder_;
  pid_t process_ = -1;
};

}  // namespace storetest
