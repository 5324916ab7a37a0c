// SPDX-License-Identifier: Apache-2.0
// OpenSSL's objects, each with an owner, and what it says of a failure.
#pragma once

#include <memory>
#include <string>

struct bio_method_st;
struct bio_st;
struct evp_mac_ctx_st;
struct evp_mac_st;
struct evp_pkey_st;
struct ssl_ctx_st;
struct ssl_st;
struct x509_st;

namespace zelta::core_service::webrtc {

struct release_openssl {
  void operator()(bio_method_st* one) const;
  void operator()(bio_st* one) const;
  void operator()(evp_mac_ctx_st* one) const;
  void operator()(evp_mac_st* one) const;
  void operator()(evp_pkey_st* one) const;
  void operator()(ssl_ctx_st* one) const;
  void operator()(ssl_st* one) const;
  void operator()(x509_st* one) const;
};

template <class Object>
using owned = std::unique_ptr<Object, release_openssl>;

// The reason of the first error that this thread's queue has, which is the innermost; the queue is
// empty afterwards.
std::string take_openssl_error();

}  // namespace zelta::core_service::webrtc
