// SPDX-License-Identifier: Apache-2.0
// The names of media files and pictures. They sort by time.
#pragma once

#include <cstdint>
#include <string>

namespace zelta::core_service {

// Returns PREFIX_YYYYMMDDTHHMMSSmmmENDING, of a file in `folder` (with its slash) that there was
// none of, and that no other session in the folder will be given: of one millisecond's files the
// later ones are named after the next that are free. The file is made, empty, with `working` after
// its name, for who wants to rename it when it is whole. One that can't be made shows when it is
// written to. For any thread.
std::string claim_file(const std::string& folder, const std::string& prefix, int64_t utc_ms,
                       const std::string& ending, const std::string& working = "");

}  // namespace zelta::core_service
