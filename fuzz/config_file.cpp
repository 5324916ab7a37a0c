// SPDX-License-Identifier: Apache-2.0
// The optional JSON file of a join.
#include "rec_engine/config_file.h"

#include "target.h"

namespace zelta::fuzz {

std::vector<std::string> seeds() {
  return {R"({"text": "value", "number": 4294967295, "nothing": null})",
          R"({"number": -1, "text": ["a", {"b": 1.5e300}]} // comment)",
          "[]",
          "\"text\"",
          std::string(600, '['),
          R"({"text": "\u0000\ud800\"\\"})"};
}

}  // namespace zelta::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zelta;
  static const std::string kPath = fuzz::scratch_folder() + "config.json";
  fuzz::write_scratch(kPath, data, size);
  const auto text = recording::look_up_text(kPath.c_str(), "text");
  fuzz::require(text.status == recording::lookup_status::kFound || text.value.empty(),
                "a value that was not found");
  recording::look_up_uint(kPath.c_str(), "number");
  return 0;
}
