// SPDX-License-Identifier: Apache-2.0
// The page's text and its content security policy. Any thread.
#pragma once

#include <string>

namespace zelta::view {

// Lets the page's own style and script run and none that somebody may have brought in (CSP Level 3,
// section 8.3); media and data come from its own origin.
std::string policy_of_page();

// For a page beside its files: `session` (JSON) stands in it, and its policy does too.
std::string page_with(const std::string& session);

// Asks for the token, and posts it to the same address, so that a moment in it is kept.
std::string token_page(bool was_wrong);
// Of token_page().
std::string policy_of_token_page();

}  // namespace zelta::view
