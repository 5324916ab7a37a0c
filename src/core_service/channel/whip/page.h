// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace zelta::core_service {

// The page that publishes from a browser, page.html. It has one <style> and one <script>.
std::string_view whip_page();

}  // namespace zelta::core_service
