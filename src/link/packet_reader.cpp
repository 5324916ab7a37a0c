// SPDX-License-Identifier: Apache-2.0
#include "link/packet_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include <sys/mman.h>
#include <sys/uio.h>

#include "protocol/ipc_protocol.h"

namespace zelta::link {

using namespace base;
namespace {

// A frame up to this size is cheaper to copy out of the buffer than to read by a call of its own.
constexpr size_t kLargeFrameBytes = 32 << 10;
// What is read behind a large payload: the rest of its packet and the head of the next one, whose
// payload can then be read into place as well.
constexpr size_t kHeadBytes = 512;
// Packets after a large one until no further is reckoned with.
constexpr int kLatelyPackets = 64;
// Of a full pipe: the writer can put more into it while this much is being copied out.
constexpr size_t kReadBytes = 512 << 10;

template <class T>
T load(const char* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

}  // namespace

packet_reader::packet_reader(int fd, receiver& to, size_t buffer_bytes)
    : fd_(fd),
      receiver_(to),
      usual_capacity_(buffer_bytes),
      buffer_(allocate(buffer_bytes)),
      capacity_(buffer_bytes),
      window_(buffer_bytes) {}

packet_reader::buffer packet_reader::allocate(size_t bytes) {
  void* const pages =
      ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) throw std::bad_alloc();
  return {static_cast<char*>(pages), unmapped{bytes}};
}

void packet_reader::unmapped::operator()(char* memory) const {
  // The one failure is an address that isn't ours.
  ::munmap(memory, bytes);
}

packet_reader::result packet_reader::read_some(size_t bound_bytes) {
  for (size_t total = 0; total < bound_bytes;) {
    switch (read_once(total)) {
      case step::kEnd:
        return result::kEnd;
      case step::kWait:
        return result::kEmpty;
      case step::kReadAll:
        if (!deliver_buffered()) return result::kBroken;
        if (large_frames_lately_ > 0) window_ = kHeadBytes;
        return result::kEmpty;
      case step::kRead:
        if (!in_large_frame_) window_ = usual_capacity_;
        if (!deliver_buffered()) return result::kBroken;
        break;
    }
  }
  return result::kMore;
}

packet_reader::step packet_reader::read_once(size_t& total) {
  iovec parts[2];
  int count = 0;
  const size_t payload_left = in_large_frame_ ? payload_.size() - payload_filled_ : 0;
  size_t wanted = std::min(capacity_ - end_, window_);
  if (payload_left > kReadBytes) {
    parts[count++] = {payload_.data() + payload_filled_, wanted = kReadBytes};
  } else {
    if (payload_left > 0) parts[count++] = {payload_.data() + payload_filled_, payload_left};
    parts[count++] = {buffer_.get() + end_, wanted};
    wanted += payload_left;
  }
  ssize_t got = -1;
  do {
    got = ::readv(fd_, parts, count);
  } while (got < 0 && errno == EINTR);
  if (got < 0 && errno == EAGAIN) return step::kWait;
  if (got <= 0) return step::kEnd;
  const auto bytes = static_cast<size_t>(got);
  const size_t into_payload = std::min(bytes, payload_left);
  payload_filled_ += into_payload;
  end_ += bytes - into_payload;
  total += bytes;
  // The rest of a payload is on its way: asking for it again is cheaper than a round of the loop.
  if (bytes < payload_left) return step::kRead;
  return bytes < wanted ? step::kReadAll : step::kRead;
}

// Delivers every packet that is complete; false when the stream is out of step, or when there is no
// memory for what it says is coming.
bool packet_reader::deliver_buffered() {
  for (;;) {
    if (in_large_frame_) {
      if (payload_filled_ < payload_.size() || buffered() < fields_bytes_) return true;
      deliver_large_frame();
      continue;
    }
    if (buffered() < kLengthPrefixBytes) break;
    const size_t total_bytes = load<uint32_t>(begin());
    if (total_bytes < protocol::kMinPacketBytes || total_bytes > protocol::kMaxPacketBytes) {
      return false;
    }
    if (buffered() < total_bytes) {
      try {
        if (start_large_frame(total_bytes)) continue;
        make_room(total_bytes);
      } catch (const std::bad_alloc&) {
        return false;
      }
      return true;
    }
    unpacker u(begin() + kLengthPrefixBytes, total_bytes - kLengthPrefixBytes, false);
    const auto uri = load<uint16_t>(begin() + kLengthPrefixBytes);
    // Passed over first: whatever the receiver does, the packet is not seen twice.
    begin_ += total_bytes;
    if (large_frames_lately_ > 0) --large_frames_lately_;
    receiver_.on_packet(u, uri);
  }
  make_room(kLengthPrefixBytes);
  return true;
}

// True when the packet at begin() is a large frame whose head is there: from then on the buffer
// holds its body without the payload. A frame that claims more payload than its packet has room
// for, or leaves more than any frame has behind it, is left to the ordinary way, where the decoder
// refuses it.
bool packet_reader::start_large_frame(size_t total_bytes) {
  if (total_bytes <= kLargeFrameBytes || buffered() < protocol::kMinPacketBytes) return false;
  const char* const body = begin() + kLengthPrefixBytes;
  const auto position = protocol::frame_payload_position(load<uint16_t>(body));
  if (!position || buffered() < kLengthPrefixBytes + *position) return false;
  const size_t body_bytes = total_bytes - kLengthPrefixBytes;
  const size_t payload_bytes = load<uint32_t>(body + *position - sizeof(uint32_t));
  if (*position + payload_bytes > body_bytes) return false;
  if (body_bytes - payload_bytes > kHeadBytes / 2) return false;

  in_large_frame_ = true;
  large_frames_lately_ = kLatelyPackets;
  window_ = kHeadBytes;
  payload_position_ = *position;
  fields_bytes_ = body_bytes - payload_bytes;
  payload_.resize(payload_bytes);
  const size_t after_head = buffered() - kLengthPrefixBytes - *position;
  payload_filled_ = std::min(after_head, payload_bytes);
  std::memcpy(payload_.data(), body + *position, payload_filled_);
  const size_t tail = after_head - payload_filled_;
  std::memmove(buffer_.get(), body, *position);
  std::memmove(buffer_.get() + *position, body + *position + payload_filled_, tail);
  begin_ = 0;
  end_ = *position + tail;
  return true;
}

void packet_reader::deliver_large_frame() {
  in_large_frame_ = false;
  unpacker u(begin(), fields_bytes_, payload_, payload_position_);
  const auto uri = load<uint16_t>(begin());
  begin_ += fields_bytes_;
  receiver_.on_packet(u, uri);
}

// Makes sure that a packet of `bytes` fits behind begin(), and that there is something to read
// into.
void packet_reader::make_room(size_t bytes) {
  const size_t held = buffered();
  const size_t capacity = std::max(bytes, usual_capacity_);
  if (capacity != capacity_ && (capacity > capacity_ || held <= capacity)) {
    // A long control packet gets the room for its time only.
    buffer moved = allocate(capacity);
    std::memcpy(moved.get(), begin(), held);
    buffer_ = std::move(moved);
    capacity_ = capacity;
  } else if (begin_ > 0) {
    std::memmove(buffer_.get(), begin(), held);
  } else {
    return;
  }
  begin_ = 0;
  end_ = held;
}

}  // namespace zelta::link
