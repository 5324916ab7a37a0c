// SPDX-License-Identifier: Apache-2.0
// What is read of a request and answered to it. The message's thread.
#pragma once

#include <string>

#include <libsoup/soup.h>

namespace zelta::view {

constexpr const char* kJson = "application/json";
constexpr const char* kText = "text/plain; charset=utf-8";

// Of the answer.
void set_header(SoupServerMessage* message, const char* name, const std::string& value);
// Of the request; empty when there is none.
std::string asked_header(SoupServerMessage* message, const char* name);
void reply(SoupServerMessage* message, int status, const char* type, const std::string& text);

}  // namespace zelta::view
