// SPDX-License-Identifier: Apache-2.0
#include "core_service/channel/whip/server_certificate.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace zelta::core_service {
namespace {

struct bio_free {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct x509_free {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct key_free {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using bio_ptr = std::unique_ptr<BIO, bio_free>;

// Else an encrypted key is asked for at the terminal.
int no_password(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*unused*/) {
  return -1;
}

bio_ptr open_file(const std::string& path, const char* setting, std::string& error) {
  errno = 0;
  bio_ptr file(BIO_new_file(path.c_str(), "r"));
  if (!file) {
    error = std::string(setting) + ": \"" + path + "\" can't be read: " + std::strerror(errno);
  }
  return file;
}

// TLS itself would find out with the first user who comes.
bool check_pair(const std::string& certificate, const std::string& key, std::string& error) {
  const bio_ptr certificate_file = open_file(certificate, "whip.certificate", error);
  if (!certificate_file) return false;
  const std::unique_ptr<X509, x509_free> own(
      PEM_read_bio_X509(certificate_file.get(), nullptr, no_password, nullptr));
  if (!own) {
    error = "whip.certificate: \"" + certificate + "\" should be a certificate in PEM";
    return false;
  }
  const bio_ptr key_file = open_file(key, "whip.key", error);
  if (!key_file) return false;
  const std::unique_ptr<EVP_PKEY, key_free> secret(
      PEM_read_bio_PrivateKey(key_file.get(), nullptr, no_password, nullptr));
  if (!secret) {
    error = "whip.key: \"" + key + "\" should be a private key in PEM, not encrypted";
    return false;
  }
  if (X509_check_private_key(own.get(), secret.get()) == 1) return true;
  error = "whip.key: \"" + key + "\" should be the key of the certificate in \"" + certificate +
          "\", and is another's";
  return false;
}

}  // namespace

glib_ptr<GTlsCertificate> load_certificate(const std::string& certificate, const std::string& key,
                                           std::string& error) {
  const bool fits = check_pair(certificate, key, error);
  ERR_clear_error();
  if (!fits) return nullptr;
  if (g_tls_backend_supports_tls(g_tls_backend_get_default()) == FALSE) {
    error = "HTTPS needs the package glib-networking, which isn't installed";
    return nullptr;
  }
  glib_error fault;
  glib_ptr<GTlsCertificate> made(
      g_tls_certificate_new_from_files(certificate.c_str(), key.c_str(), fault.out()));
  if (!made) {
    error = "whip.certificate: \"" + certificate + "\" and whip.key: \"" + key +
            "\" can't be used: " + fault.text();
  }
  return made;
}

}  // namespace zelta::core_service
