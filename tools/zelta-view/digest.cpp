// SPDX-License-Identifier: Apache-2.0
#include "digest.h"

#include <memory>

#include "core_service/channel/glib.h"

namespace zelta::view {
namespace {

using core_service::text_ptr;

struct checksum_free {
  void operator()(GChecksum* sum) const { g_checksum_free(sum); }
};
using checksum_ptr = std::unique_ptr<GChecksum, checksum_free>;

checksum_ptr sum_of(std::string_view text) {
  checksum_ptr sum(g_checksum_new(G_CHECKSUM_SHA256));
  g_checksum_update(sum.get(), reinterpret_cast<const guchar*>(text.data()),
                    static_cast<gssize>(text.size()));
  return sum;
}

}  // namespace

std::string sha256_of(std::string_view text) {
  return g_checksum_get_string(sum_of(text).get());
}

std::string base64_sha256_of(std::string_view text) {
  guint8 digest[32];
  gsize size = sizeof digest;
  g_checksum_get_digest(sum_of(text).get(), digest, &size);
  return base64_of({reinterpret_cast<const char*>(digest), size});
}

std::string base64_of(std::string_view bytes) {
  return text_ptr(g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size()))
      .get();
}

}  // namespace zelta::view
