// SPDX-License-Identifier: Apache-2.0
#include "core_service/rtp/transport_feedback.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "core_service/rtp/network_order.h"

namespace zelta::core_service::rtp {
namespace {

using media::media_time;
using namespace std::chrono_literals;

constexpr media_time kTick = 250us;
// The reference time has 256 ticks, which are 64 ms.
constexpr unsigned kReferenceShift = 8;

constexpr size_t kRtcpBytes = 12;  // header, and both sources
constexpr size_t kHeadBytes = 8;   // base, count, reference time, number of the packet
constexpr size_t kChunkBytes = 2;

// How a number's symbol is written, which is how many bytes its delta has.
enum : uint8_t { kAbsent = 0, kSmallDelta = 1, kLargeDelta = 2 };

constexpr size_t kMostRun = 0x1fff;
constexpr size_t kOneBitSymbols = 14;
constexpr size_t kTwoBitSymbols = 7;

constexpr int32_t kMostSmall = 255;

// Of which differences count, over its wrap as well; never 0.
uint32_t tick_of(media_time time) {
  const auto tick = static_cast<uint32_t>(time / kTick);
  return tick == 0 ? 1 : tick;
}

int32_t delta_between(uint32_t before, uint32_t after) {
  return static_cast<int32_t>(after - before);
}

bool fits(int32_t delta) {
  return delta >= std::numeric_limits<int16_t>::min() &&
         delta <= std::numeric_limits<int16_t>::max();
}

struct chunk {
  uint16_t bits;
  size_t symbols;
};

chunk run_of(uint8_t symbol, size_t length) {
  return {static_cast<uint16_t>(unsigned{symbol} << 13U | length), length};
}

chunk vector_of(const uint8_t* symbols, size_t count, size_t places) {
  const bool two = places == kTwoBitSymbols;
  unsigned bits = two ? 3U : 2U;
  for (size_t i = 0; i < places; ++i) {
    bits = bits << (two ? 2U : 1U) | (i < count ? symbols[i] : 0U);
  }
  return {static_cast<uint16_t>(bits), std::min(count, places)};
}

// The chunk that says the most of the `count` symbols from here on (section 3.1.3). A vector has
// less than its places only at the end.
chunk next_chunk(const uint8_t* symbols, size_t count) {
  const uint8_t* const end = symbols + std::min(count, kMostRun);
  const auto run = static_cast<size_t>(
      std::find_if(symbols, end, [&](uint8_t one) { return one != *symbols; }) - symbols);
  const size_t one_bit = std::min(count, kOneBitSymbols);
  const bool any_large = std::find(symbols, symbols + one_bit, kLargeDelta) != symbols + one_bit;
  const size_t vector = any_large ? std::min(count, kTwoBitSymbols) : one_bit;
  if (run >= vector) return run_of(*symbols, run);
  return vector_of(symbols, count, any_large ? kTwoBitSymbols : kOneBitSymbols);
}

// How many of `count` symbols have deltas of no more than `room` bytes together.
size_t symbols_in(const uint8_t* symbols, size_t count, size_t room) {
  size_t bytes = 0;
  for (size_t i = 0; i < count; ++i) {
    bytes += symbols[i];
    if (bytes > room) return i;
  }
  return count;
}

struct chunks {
  size_t count = 0;    // of them
  size_t symbols = 0;  // that they say
  size_t deltas = 0;   // bytes of those
};

// Chunks of as many of the symbols as have room with their deltas.
chunks write_chunks(const uint8_t* symbols, size_t count, size_t room, uint8_t* to) {
  chunks written;
  while (written.symbols < count) {
    const size_t used = (written.count + 1) * kChunkBytes + written.deltas;
    if (used > room) break;
    const uint8_t* const from = symbols + written.symbols;
    chunk one = next_chunk(from, count - written.symbols);
    const size_t fitting = symbols_in(from, one.symbols, room - used);
    if (fitting == 0) break;
    // It is the last one then: not even a chunk has room behind it.
    if (fitting < one.symbols) one = next_chunk(from, fitting);
    write_16(to + written.count * kChunkBytes, one.bits);
    ++written.count;
    for (size_t i = 0; i < one.symbols; ++i) written.deltas += from[i];
    written.symbols += one.symbols;
  }
  return written;
}

}  // namespace

void transport_feedback::received(uint16_t number, media_time arrival) {
  const auto ahead = static_cast<int16_t>(number - static_cast<uint16_t>(highest_));
  int64_t sequence = highest_ + ahead;
  if (!begun_ || highest_ - sequence >= kRing) {
    sequence = number;
    begin(sequence);
  }
  if (sequence > highest_) step_to(sequence);
  uint32_t& tick = came(sequence);
  if (tick != 0) return;
  tick = tick_of(arrival);
  if (sequence < next_ && next_ - sequence <= kMostLate) next_ = sequence;
}

void transport_feedback::begin(int64_t number) {
  came_.fill(0);
  begun_ = true;
  next_ = highest_ = number;
}

void transport_feedback::step_to(int64_t number) {
  const int64_t oldest = number - kRing + 1;
  for (int64_t i = std::max(highest_ + 1, oldest); i <= number; ++i) came(i) = 0;
  highest_ = number;
  next_ = std::max(next_, oldest);
}

bool transport_feedback::write(rtcp_writer& to, uint32_t ssrc, uint32_t of) {
  const size_t room = std::min(to.room(), kMostBytes) / 4 * 4;
  if (!waiting() || room < kRtcpBytes + kHeadBytes) return false;
  symbol_list symbols;
  const range planned = plan(symbols);
  uint8_t content[kMostBytes - kRtcpBytes];
  const chunks said = write_chunks(symbols.data(), planned.symbols, room - kRtcpBytes - kHeadBytes,
                                   content + kHeadBytes);
  // The reference time is that of one that came.
  if (said.deltas == 0) return false;
  write_16(content, static_cast<uint16_t>(next_));
  write_16(content + 2, static_cast<uint32_t>(said.symbols));
  write_32(content + 4, planned.reference << kReferenceShift | packets_);
  size_t size = kHeadBytes + said.count * kChunkBytes;
  write_deltas(planned.reference, symbols.data(), said.symbols, content + size);
  size += said.deltas;
  for (; size % 4 != 0; ++size) content[size] = 0;
  if (!to.transport_wide(ssrc, of, content, size)) return false;
  ++packets_;
  next_ += static_cast<int64_t>(said.symbols);
  return true;
}

// The symbols of what waits, up to the first delta that can't be said.
transport_feedback::range transport_feedback::plan(symbol_list& symbols) const {
  range planned;
  uint32_t before = 0;
  bool any = false;
  for (int64_t number = next_; number <= highest_; ++number) {
    const uint32_t tick = came(number);
    uint8_t& symbol = symbols[planned.symbols];
    symbol = kAbsent;
    if (tick != 0) {
      if (!std::exchange(any, true)) {
        planned.reference = tick >> kReferenceShift;
        before = planned.reference << kReferenceShift;
      }
      const int32_t delta = delta_between(before, tick);
      if (!fits(delta)) break;
      symbol = delta >= 0 && delta <= kMostSmall ? kSmallDelta : kLargeDelta;
      before = tick;
    }
    ++planned.symbols;
  }
  return planned;
}

void transport_feedback::write_deltas(uint32_t reference, const uint8_t* symbols, size_t count,
                                      uint8_t* to) const {
  uint32_t before = reference << kReferenceShift;
  for (size_t i = 0; i < count; ++i) {
    if (symbols[i] == kAbsent) continue;
    const uint32_t tick = came(next_ + static_cast<int64_t>(i));
    const uint32_t delta = tick - before;
    if (symbols[i] == kSmallDelta) {
      *to++ = static_cast<uint8_t>(delta);
    } else {
      write_16(to, delta);
      to += 2;
    }
    before = tick;
  }
}

}  // namespace zelta::core_service::rtp
