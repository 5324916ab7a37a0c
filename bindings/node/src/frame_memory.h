// SPDX-License-Identifier: Apache-2.0
// The memory of a frame that the library lends, and the one ArrayBuffer that shows it to
// JavaScript.
//
// It goes back at once by release(), else when both the frame and the buffer were collected. Before
// it goes back the buffer is detached, so that no view reads what lies there next. A buffer that
// somebody has moved to another one can't be detached any more: that one keeps the memory until it
// is collected.
//
// Thread rule: all of it belongs to the thread of the environment.
#pragma once

#include <memory>

#include <node_api.h>

#include "frame_account.h"
#include "lease.h"

namespace zelta::node {

class frame_memory : public std::enable_shared_from_this<frame_memory> {
 public:
  frame_memory(napi_env env, std::shared_ptr<const lease> owner,
               std::shared_ptr<frame_account> account, const zelta_event* event);
  ~frame_memory();
  frame_memory(const frame_memory&) = delete;
  frame_memory& operator=(const frame_memory&) = delete;

  // The ArrayBuffer, which is to be asked for once; a copy where the runtime allows no other
  // memory.
  napi_value buffer();
  // Gives the memory back. `buffer`: what buffer() made, or null.
  void release(napi_value buffer);

 private:
  void give_back();
  const uint8_t* data() const;
  size_t bytes() const;

  const napi_env env_;
  const std::shared_ptr<const lease> owner_;
  const std::shared_ptr<frame_account> account_;
  const zelta_event* event_;  // null: given back
};

}  // namespace zelta::node
