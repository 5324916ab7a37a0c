// SPDX-License-Identifier: Apache-2.0
#include "core_service/media/picture_memory.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include <sys/mman.h>

#include "core_service/media/gst.h"

namespace zelta::core_service::media {
namespace {

constexpr size_t kPageBytes = 4 << 10;
constexpr size_t kHugePageBytes = 2 << 20;
// Room for about what a decoder and the pipe hold of large pictures.
constexpr size_t kRegionBytes = 32 << 20;

constexpr size_t round_up(size_t bytes, size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

// A mapping that is divided into slots of one size, one a picture: huge pages of their own would
// stay half empty. Throws std::bad_alloc.
class region {
 public:
  explicit region(size_t slot_bytes)
      : slot_bytes_(slot_bytes),
        bytes_(round_up(std::max(kRegionBytes, slot_bytes), kHugePageBytes)),
        slots_(bytes_ / slot_bytes) {
    free_.reserve(slots_);
    // Larger by what may have to be passed over to the first huge page.
    void* const mapped = ::mmap(nullptr, bytes_ + kHugePageBytes, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    mapped_ = static_cast<char*>(mapped);
    const auto address = reinterpret_cast<uintptr_t>(mapped);
    start_ = mapped_ + (round_up(address, kHugePageBytes) - address);
    // A kernel without huge pages refuses, and gives small ones.
    ::madvise(start_, bytes_, MADV_HUGEPAGE);
  }
  ~region() { ::munmap(mapped_, bytes_ + kHugePageBytes); }
  region(const region&) = delete;
  region& operator=(const region&) = delete;

  size_t slot_bytes() const { return slot_bytes_; }
  size_t bytes() const { return bytes_; }
  bool full() const { return free_.empty() && untouched_ == slots_; }
  bool unused() const { return free_.size() == untouched_; }
  // The slot that came back last, which a cache may still have.
  char* take() {
    if (free_.empty()) return start_ + untouched_++ * slot_bytes_;
    char* const slot = free_.back();
    free_.pop_back();
    return slot;
  }
  // Allocates nothing: there is room for every slot.
  void give_back(char* slot) { free_.push_back(slot); }

 private:
  const size_t slot_bytes_;
  const size_t bytes_;
  const size_t slots_;
  char* mapped_ = nullptr;
  char* start_ = nullptr;
  // The slots from this one on have never been used, and have no pages yet.
  size_t untouched_ = 0;
  std::vector<char*> free_;
};

// All regions; a region goes when its last picture does.
class regions {
 public:
  struct slot {
    region* from = nullptr;
    char* data = nullptr;
  };

  slot take(size_t bytes) {
    const size_t slot_bytes = round_up(bytes, kPageBytes);
    const std::lock_guard<std::mutex> guard(lock_);
    auto found = std::find_if(all_.begin(), all_.end(), [slot_bytes](const region& one) {
      return one.slot_bytes() == slot_bytes && !one.full();
    });
    if (found == all_.end()) found = all_.emplace(all_.end(), slot_bytes);
    return {&*found, found->take()};
  }

  void give_back(const slot& used) {
    const std::lock_guard<std::mutex> guard(lock_);
    used.from->give_back(used.data);
    if (!used.from->unused()) return;
    all_.remove_if([&used](const region& one) { return &one == used.from; });
  }

  size_t bytes() {
    const std::lock_guard<std::mutex> guard(lock_);
    size_t sum = 0;
    for (const region& one : all_) sum += one.bytes();
    return sum;
  }

 private:
  std::mutex lock_;
  std::list<region> all_;
};

// Never destroyed: GStreamer may hold pictures to the very end of the process.
regions& all_regions() {
  static regions& all = *std::make_unique<regions>().release();
  return all;
}

// ---- As GStreamer sees it ------------------------------------------------------------------

// A block; or a part of one, which keeps its parent and has no slot of its own.
struct picture_block {
  GstMemory base;
  regions::slot slot;
};

picture_block* block_of(GstMemory* memory) {
  return reinterpret_cast<picture_block*>(memory);
}

ZELTA_NOT_FOR_TSAN GstMemory* allocate(GstAllocator* allocator, gsize bytes,
                                       GstAllocationParams* params) {
  const size_t all_bytes = params->prefix + bytes + params->padding;
  const bool page_is_enough = params->align < kPageBytes;
  if (all_bytes >= kMinPictureBytes && page_is_enough) {
    try {
      auto block = std::make_unique<picture_block>();
      block->slot = all_regions().take(all_bytes);
      char* const data = block->slot.data;
      if ((params->flags & GST_MEMORY_FLAG_ZERO_PREFIXED) != 0) {
        std::memset(data, 0, params->prefix);
      }
      if ((params->flags & GST_MEMORY_FLAG_ZERO_PADDED) != 0) {
        std::memset(data + params->prefix + bytes, 0, params->padding);
      }
      gst_memory_init(&block->base, params->flags, allocator, nullptr, all_bytes, params->align,
                      params->prefix, bytes);
      return &block.release()->base;
    } catch (const std::bad_alloc&) {
      // The heap may have what is left.
    }
  }
  GstAllocator* const heap = gst_allocator_find(GST_ALLOCATOR_SYSMEM);
  GstMemory* const memory = gst_allocator_alloc(heap, bytes, params);
  gst_object_unref(heap);
  return memory;
}

ZELTA_NOT_FOR_TSAN void free_block(GstAllocator* /*allocator*/, GstMemory* memory) {
  const std::unique_ptr<picture_block> block(block_of(memory));
  const regions::slot slot = block->slot;
  if (slot.from != nullptr) all_regions().give_back(slot);
}

ZELTA_NOT_FOR_TSAN gpointer map(GstMemory* memory, gsize /*bytes*/, GstMapFlags /*flags*/) {
  return block_of(memory)->slot.data;
}

void unmap(GstMemory* /*memory*/) {}

ZELTA_NOT_FOR_TSAN GstMemory* share(GstMemory* memory, gssize offset, gssize bytes) {
  GstMemory* const parent = memory->parent != nullptr ? memory->parent : memory;
  const auto begin = memory->offset + static_cast<gsize>(offset);
  auto part = std::make_unique<picture_block>();
  part->slot.data = block_of(memory)->slot.data;
  const auto flags = static_cast<GstMemoryFlags>(
      GST_MINI_OBJECT_FLAGS(parent) | static_cast<guint>(GST_MINI_OBJECT_FLAG_LOCK_READONLY));
  gst_memory_init(
      &part->base, flags, memory->allocator, parent, memory->maxsize, memory->align, begin,
      bytes < 0 ? memory->size - static_cast<gsize>(offset) : static_cast<gsize>(bytes));
  return &part.release()->base;
}

GType picture_allocator_type() {
  static const GType type = g_type_register_static_simple(
      GST_TYPE_ALLOCATOR, "ZeltaPictureAllocator", sizeof(GstAllocatorClass),
      [](gpointer of_class, gpointer /*unused*/) {
        auto* const functions = static_cast<GstAllocatorClass*>(of_class);
        functions->alloc = allocate;
        functions->free = free_block;
      },
      sizeof(GstAllocator),
      [](GTypeInstance* instance, gpointer /*of_class*/) {
        auto* const made = reinterpret_cast<GstAllocator*>(instance);
        made->mem_type = kPictureMemory;
        made->mem_map = map;
        made->mem_unmap = unmap;
        made->mem_share = share;
      },
      static_cast<GTypeFlags>(0));
  return type;
}

GstPadProbeReturn answer(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*unused*/) {
  GstQuery* const query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
  GstAllocationParams usual;
  gst_allocation_params_init(&usual);
  gst_query_add_allocation_param(query, picture_allocator(), &usual);
  return GST_PAD_PROBE_HANDLED;
}

}  // namespace

GstAllocator* picture_allocator() {
  static GstAllocator* const only = static_cast<GstAllocator*>(
      gst_object_ref_sink(g_object_new(picture_allocator_type(), nullptr)));
  return only;
}

size_t picture_memory_bytes() {
  return all_regions().bytes();
}

// Answered here and not asked of those behind, because a tee passes no allocator on.
void offer_picture_memory(GstPad* pad) {
  gst_pad_add_probe(
      pad,
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM | GST_PAD_PROBE_TYPE_PUSH),
      answer, nullptr, nullptr);
}

}  // namespace zelta::core_service::media
