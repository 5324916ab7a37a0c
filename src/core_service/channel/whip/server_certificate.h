// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "core_service/channel/glib.h"

namespace zelta::core_service {

// Of two PEM files: the certificate with its issuers behind it, and its key, which isn't encrypted.
// Null, with `error` saying which file and what would be right.
glib_ptr<GTlsCertificate> load_certificate(const std::string& certificate, const std::string& key,
                                           std::string& error);

}  // namespace zelta::core_service
