#include "store/redis/SecretFile.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace pvss::redis {
namespace {

constexpr std::size_t largest = 65536;

class Descriptor {
 public:
  // Not blocking, so that a pipe put in its place cannot hold us up.
  explicit Descriptor(const std::string& path)
      : number_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  [[nodiscard]] int get() const { return number_; }

 private:
  const int number_;
};

}  // namespace

std::optional<std::string> readSecretFile(const std::string& path, std::string_view what,
                                          std::string& error) {
  const std::string named = std::string(what) + " " + path;
  const Descriptor file(path);
  struct stat status = {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    error = named + ": " + std::generic_category().message(errno);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    error = named + " is not a regular file";
    return std::nullopt;
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    error = fmt::format("{} is open to others than its owner (mode {:04o}): chmod 600 it", named,
                        status.st_mode & 07777U);
    return std::nullopt;
  }
  std::string text(largest + 1, '\0');
  std::size_t length = 0;
  while (length < text.size()) {
    const ssize_t got = ::read(file.get(), text.data() + length, text.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = named + ": " + std::generic_category().message(errno);
      return std::nullopt;
    }
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  if (length == 0 || length > largest) {
    error = named + (length == 0 ? " is empty" : " is too large to be one");
    return std::nullopt;
  }
  text.resize(length);
  return text;
}

std::optional<std::string> readPasswordFile(const std::string& path, std::string& error) {
  std::optional<std::string> text = readSecretFile(path, "password file", error);
  if (!text) return std::nullopt;
  text->resize(std::min(text->find_first_of("\r\n"), text->size()));
  if (text->empty()) {
    error = "password file " + path + " holds no password in its first line";
    return std::nullopt;
  }
  return text;
}

}  // namespace pvss::redis
