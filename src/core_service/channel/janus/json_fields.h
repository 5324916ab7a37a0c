// SPDX-License-Identifier: Apache-2.0
// What stands in JSON that somebody else has written, whatever its types: what isn't there, or is
// something else, is empty. Any thread; nothing is thrown.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <json/json.h>

namespace zelta::core_service::janus {

// None, with `error`, for what is no JSON (RFC 8259) or is nested more than 32 deep.
std::optional<Json::Value> parse_json(const std::string& text, std::string& error);
// On one line.
std::string json_line(const Json::Value& value);

// Of an object; of anything else they are empty.
std::string text_in(const Json::Value& of, const char* key);
uint64_t number_in(const Json::Value& of, const char* key);  // 0: there is none, or it is below
bool flag_in(const Json::Value& of, const char* key);
const Json::Value& object_in(const Json::Value& of, const char* key);
const Json::Value& list_in(const Json::Value& of, const char* key);

// Rooms and feeds are numbers or texts, as the gateway is set up: its digits, or the text; "" for
// what is neither.
std::string id_text(const Json::Value& id);

}  // namespace zelta::core_service::janus
