// SPDX-License-Identifier: Apache-2.0
// The page that shows a recording, made of page/page.html and its parts.
#pragma once

#include <string_view>

namespace zelta::view {

// HTML, UTF-8, complete in itself. It has one script of data, which is empty, see page_text.h.
std::string_view view_page();

}  // namespace zelta::view
