// SPDX-License-Identifier: Apache-2.0
#include "frame_memory.h"

#include <cstring>
#include <utility>

namespace zelta::node {

frame_memory::frame_memory(napi_env env, std::shared_ptr<const lease> owner,
                           std::shared_ptr<frame_account> account, const zelta_event* event)
    : env_(env), owner_(std::move(owner)), account_(std::move(account)), event_(event) {
  account_->lent(env_, bytes());
}

frame_memory::~frame_memory() {
  give_back();
}

const uint8_t* frame_memory::data() const {
  return event_->kind == ZELTA_EVENT_AUDIO_FRAME ? event_->as.audio.data : event_->as.video.data;
}

size_t frame_memory::bytes() const {
  return event_->kind == ZELTA_EVENT_AUDIO_FRAME ? event_->as.audio.data_bytes
                                                 : event_->as.video.data_bytes;
}

napi_value frame_memory::buffer() {
  if (event_ == nullptr) return nullptr;
  auto share = std::make_unique<std::shared_ptr<frame_memory>>(shared_from_this());
  const napi_finalize collected = [](napi_env, void*, void* of) {
    const std::unique_ptr<std::shared_ptr<frame_memory>> last(
        static_cast<std::shared_ptr<frame_memory>*>(of));
  };
  napi_value made = nullptr;
  // Nobody writes to it but who wants to change a frame of their own.
  const napi_status status = napi_create_external_arraybuffer(
      env_, const_cast<uint8_t*>(data()), bytes(), collected, share.get(), &made);
  if (status == napi_ok) {
    static_cast<void>(share.release());
    return made;
  }
  if (status != napi_no_external_buffers_allowed) return nullptr;
  void* copy = nullptr;
  if (napi_create_arraybuffer(env_, bytes(), &copy, &made) != napi_ok) return nullptr;
  std::memcpy(copy, data(), bytes());
  give_back();
  return made;
}

void frame_memory::release(napi_value buffer) {
  bool is_buffer = false;
  if (napi_is_arraybuffer(env_, buffer, &is_buffer) == napi_ok && is_buffer) {
    bool moved = false;
    if (napi_is_detached_arraybuffer(env_, buffer, &moved) != napi_ok || moved) return;
    if (napi_detach_arraybuffer(env_, buffer) != napi_ok) return;
  }
  give_back();
}

void frame_memory::give_back() {
  if (event_ == nullptr) return;
  account_->given_back(bytes());
  zelta_event_release(owner_->get(), std::exchange(event_, nullptr));
}

}  // namespace zelta::node
