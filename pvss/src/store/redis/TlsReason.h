// TlsReason: why a TLS link does not come about or ended, in one line that says what to do.
#pragma once

#include <openssl/ssl.h>

#include <string>

#include "store/redis/StoreAddress.h"

namespace pvss::redis {

class TlsReason {
 public:
  TlsReason(TlsFiles files, std::string host) : files_(std::move(files)), host_(std::move(host)) {}

  /// The server asked for a certificate and this side has none.
  void certificateWanted() { certificateWanted_ = true; }
  /// For the first error in the library's queue.
  [[nodiscard]] std::string of(const SSL* session, unsigned long error) const;

 private:
  [[nodiscard]] std::string ofVerification(const SSL* session) const;
  [[nodiscard]] std::string ofAlert(int alert) const;

  TlsFiles files_;
  std::string host_;
  bool certificateWanted_ = false;
};

/// The library's own words.
std::string libraryText(unsigned long error);

}  // namespace pvss::redis
