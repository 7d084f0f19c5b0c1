#include "store/redis/TlsContext.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "store/redis/SecretFile.h"
#include "store/redis/TlsReason.h"

namespace pvss::redis {
namespace {

struct FreeContext {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using Context = std::unique_ptr<SSL_CTX, FreeContext>;
struct FreeKey {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct FreeBio {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

/// A regular file that can be read: opening a pipe would wait for its writer.
bool readable(const std::string& path, const char* what, std::string& error) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0 || ::access(path.c_str(), R_OK) != 0) {
    error = std::string(what) + " file " + path + ": " + std::generic_category().message(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    error = std::string(what) + " file " + path + " is not a regular file";
    return false;
  }
  return true;
}

// Without it the library would ask on the terminal.
int noPassphrase(char*, int, int, void*) {
  return -1;
}

// Asked by the handshake when the server wants a certificate and none is set.
int certificateWanted(SSL* session, X509**, EVP_PKEY**) {
  if (auto* reason = static_cast<TlsReason*>(SSL_get_app_data(session)); reason != nullptr)
    reason->certificateWanted();
  return 0;
}

bool loadAuthorities(SSL_CTX* context, const std::string& file, std::string& error) {
  if (file.empty()) {
    if (SSL_CTX_set_default_verify_paths(context) == 1) return true;
    error = "the authorities of this system cannot be read: name the authority's file with ca=FILE";
    return false;
  }
  if (!readable(file, "ca", error)) return false;
  if (SSL_CTX_load_verify_file(context, file.c_str()) == 1) return true;
  error = "ca file " + file + " holds no certificate in PEM";
  return false;
}

bool loadCertificate(SSL_CTX* context, const TlsFiles& files, std::string& error) {
  if (files.cert.empty()) return true;
  if (!readable(files.cert, "cert", error)) return false;
  if (SSL_CTX_use_certificate_chain_file(context, files.cert.c_str()) != 1) {
    error = "cert file " + files.cert + " holds no certificate in PEM";
    return false;
  }
  std::string text = readSecretFile(files.key, "key file", error).value_or("");
  if (text.empty()) return false;
  std::unique_ptr<EVP_PKEY, FreeKey> key;
  {
    const std::unique_ptr<BIO, FreeBio> bytes(BIO_new_mem_buf(text.c_str(), static_cast<int>(text.size())));
    key.reset(PEM_read_bio_PrivateKey(bytes.get(), nullptr, noPassphrase, nullptr));
  }
  OPENSSL_cleanse(text.data(), text.size());
  if (!key) {
    error = "key file " + files.key + " holds no private key in PEM that can be used without a passphrase";
    return false;
  }
  if (SSL_CTX_use_PrivateKey(context, key.get()) != 1) {
    error = "key file " + files.key + " does not belong to the certificate in " + files.cert;
    return false;
  }
  return true;
}

}  // namespace

TlsSession makeTlsSession(const TlsFiles& files, std::string& error) {
  ERR_clear_error();
  const Context context(SSL_CTX_new(TLS_client_method()));
  if (!context) {
    error = "TLS cannot be used: " + libraryText(ERR_peek_error());
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                      SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_client_cert_cb(context.get(), certificateWanted);
  if (!loadAuthorities(context.get(), files.ca, error) || !loadCertificate(context.get(), files, error)) {
    return nullptr;
  }
  TlsSession session(SSL_new(context.get()));
  if (!session) error = "TLS cannot be used: " + libraryText(ERR_peek_error());
  return session;
}

}  // namespace pvss::redis
