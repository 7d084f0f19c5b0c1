#include "transport/mqtt/PasswordFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace kel::mqtt {

namespace {

constexpr std::size_t kLongest = 65535;  // the length field of an MQTT password

class File {
 public:
  // Not blocking, so that a FIFO put in its place cannot hold us up.
  explicit File(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~File() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  [[nodiscard]] int get() const { return descriptor_; }

 private:
  const int descriptor_;
};

/// The open file; refused with a reason when it is none of its owner's own.
bool openPrivate(const File& file, const std::string& named, std::string& error) {
  struct stat status = {};
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    error = named + ": " + std::generic_category().message(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    error = named + " is not a regular file";
    return false;
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    std::string mode(4, '0');
    for (std::size_t digit = 0; digit < mode.size(); ++digit) {
      const auto shift = 3U * (static_cast<unsigned>(mode.size() - 1 - digit));
      mode[digit] = static_cast<char>('0' + ((status.st_mode >> shift) & 7U));
    }
    error = named + " is open to others than its owner (mode " + mode + "): chmod 600 it";
    return false;
  }
  return true;
}

}  // namespace

bool checkKeyFile(const std::string& path, std::string& error) {
  const File file(path);
  return openPrivate(file, "key file " + path, error);
}

std::optional<std::string> readPasswordFile(const std::string& path, std::string& error) {
  const std::string named = "password file " + path;
  const File file(path);
  if (!openPrivate(file, named, error)) return std::nullopt;
  std::string text(kLongest + 2, '\0');
  std::size_t length = 0;
  while (length < text.size()) {
    const auto got = ::read(file.get(), text.data() + length, text.size() - length);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      error = named + ": " + std::generic_category().message(errno);
      return std::nullopt;
    }
    if (got == 0) {
      break;
    }
    length += static_cast<std::size_t>(got);
  }
  text.resize(length);
  if (const auto end = text.find_first_of("\r\n"); end != std::string::npos) {
    text.resize(end);
  }
  if (text.empty()) {
    error = named + " holds no password";
    return std::nullopt;
  }
  if (text.size() > kLongest || text.find('\0') != std::string::npos) {
    error = named + " holds no password that MQTT could carry";
    return std::nullopt;
  }
  return text;
}

}  // namespace kel::mqtt
