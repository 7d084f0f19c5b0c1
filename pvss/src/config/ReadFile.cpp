#include "config/ReadFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace pvss {

int readFile(const std::string& path, std::string& text) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return errno;
  }
  std::array<char, 65536> buffer{};
  int error = 0;
  while (true) {
    const ssize_t count = ::read(file, buffer.data(), buffer.size());
    if (count > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      error = count == 0 ? 0 : errno;
      break;
    }
  }
  ::close(file);
  return error;
}

}  // namespace pvss
