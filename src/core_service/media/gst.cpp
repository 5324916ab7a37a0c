// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/gst.h"

#include <utility>

namespace zelta::core_service::media {

element_ptr make_bin(const std::string& description, std::string& error) {
  GError* failed = nullptr;
  GstElement* const bin = gst_parse_bin_from_description_full(description.c_str(), TRUE, nullptr,
                                                              GST_PARSE_FLAG_FATAL_ERRORS, &failed);
  if (failed != nullptr) {
    error = std::string(failed->message) + " (in: " + description + ")";
    g_clear_error(&failed);
  }
  return element_ptr(bin != nullptr ? GST_ELEMENT(gst_object_ref_sink(bin)) : nullptr);
}

bool have_element(const char* name) {
  GstElementFactory* const found = gst_element_factory_find(name);
  if (found == nullptr) return false;
  gst_object_unref(found);
  return true;
}

GstElement* add(GstElement* parent, element_ptr child) {
  GstElement* const borrowed = child.get();
  gst_bin_add(GST_BIN(parent), child.get());
  return borrowed;
}

}  // namespace zelta::core_service::media
