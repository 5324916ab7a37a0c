// SPDX-License-Identifier: Apache-2.0
#include "core_service/files/stills_consumer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core_service/folder/file_name.h"
#include "core_service/load/descriptors.h"

namespace zelta::core_service::files {

stills_consumer::stills_consumer(uint32_t uid, std::string folder, ledger& to,
                                 base::event_loop& loop, events told)
    : uid_(uid), folder_(std::move(folder)), ledger_(to), events_(std::move(told)), poster_(loop) {}

// Written under another name first, so that whoever looks for pictures finds whole ones.
void stills_consumer::on_still(const media::media_sample& sample, int /*rotation*/) {
  if (!serves_) return;
  const std::string name =
      claim_file(folder_, std::to_string(uid_), media::utc_ms_of(sample.time), ".jpg", ".new");
  const std::string path = folder_ + name;
  const std::string fresh = path + ".new";
  GstMapInfo map{};
  if (gst_buffer_map(sample.buffer.get(), &map, GST_MAP_READ) == FALSE) return;
  std::FILE* const file = std::fopen(fresh.c_str(), "wbe");
  bool written = file != nullptr && std::fwrite(map.data, 1, map.size, file) == map.size;
  // Closing is what writes the rest.
  written = file != nullptr && std::fclose(file) == 0 && written;
  gst_buffer_unmap(sample.buffer.get(), &map);
  written = written && std::rename(fresh.c_str(), path.c_str()) == 0;
  poster_.post([this, written, name, path, error = errno] {
    if (written) return ledger_.picture({name, uid_});
    std::remove((path + ".new").c_str());
    if (!is_shortage(error)) {
      return events_.failed("can't write " + path + ": " + std::strerror(error));
    }
    events_.missing({"captured pictures", "jpeg", std::strerror(error)});
  });
}

}  // namespace zelta::core_service::files
