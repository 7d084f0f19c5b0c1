// KelException: what the Kel library reports as wrong.
#pragma once

#include <stdexcept>
#include <string>

/// Thrown by KelData for a field that is missing or of another type and for a tag that cannot be a field's
/// name, and by Kel::create for an address that cannot be one; handed to listeners and error handlers for
/// everything that a network or a name does. what() is one sentence without a line end.
class KelException : public std::runtime_error {
 public:
  explicit KelException(const std::string& reason) : std::runtime_error(reason) {}
};
