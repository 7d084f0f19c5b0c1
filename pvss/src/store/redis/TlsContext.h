// TlsContext: a TLS session of this side's making: versions, authorities, certificate, key.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "store/redis/StoreAddress.h"

namespace pvss::redis {

struct FreeSession {
  void operator()(SSL* session) const { SSL_free(session); }
};
using TlsSession = std::unique_ptr<SSL, FreeSession>;

/// A session that verifies the server's certificate and shows the one in the files. Null with the reason in
/// `error` when a file cannot be used. Reads the files.
TlsSession makeTlsSession(const TlsFiles& files, std::string& error);

}  // namespace pvss::redis
