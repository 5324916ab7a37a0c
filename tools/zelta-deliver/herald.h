// SPDX-License-Identifier: Apache-2.0
// Tells of what was delivered: runs a hook, posts to the webhook. Any thread; both wait for their
// end, which comes at the latest with their limit.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "http_client.h"
#include "ledger.h"
#include "pace.h"
#include "settings.h"
#include "target.h"

namespace zelta::deliver {

// Runs `command` with the notice on standard input, and its values in the environment as
// ZELTA_EVENT, ZELTA_FOLDER and so on; ZELTA_ID tells repeats. Every line that it writes goes to
// `say`. Variables that hold credentials are kept from it. After the limit, or when all is to stop,
// it and its children are killed.
outcome run_hook(const std::vector<std::string>& command, const notice& of,
                 const delivery_settings& settings, const pace& limits,
                 const std::function<void(const std::string&)>& say);

// X-Zelta-Signature is "sha256=" and the HMAC of the body, X-Zelta-Delivery the notice's id.
outcome post_notice(http_client& by, const delivery_settings& settings, const notice& of);

}  // namespace zelta::deliver
