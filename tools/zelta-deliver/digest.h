// SPDX-License-Identifier: Apache-2.0
// SHA-256 of what is sent, in lower-case hexadecimal. Any thread; a `sha256` belongs to one.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace zelta::deliver {

class sha256 {
 public:
  // Throws std::bad_alloc, as there is nothing else that can fail.
  sha256();
  void add(const char* bytes, size_t size);
  // Once, at the end.
  std::string hex();

 private:
  struct release {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, release> context_;
};

std::string sha256_of(const std::string& text);
// RFC 2104.
std::string hmac_sha256(const std::string& key, const std::string& text);
// 128 bits that nobody guesses and nobody else has.
std::string random_id();

}  // namespace zelta::deliver
