// The device allocator: shared USM of the one SYCL context, cached per device and stream.
//
// Sizes are rounded up to classes, eight to the doubling (at most 12.5 percent waste), and a freed block
// waits for the next request of its class on its stream: kernels of one stream run in order, so it may be
// handed out while the kernel that used it last still runs. A block that record_stream() put on further
// streams is handed out only after all work those streams had at the time of the free.
#include <c10/util/flat_hash_map.h>
#include <c10/util/llvmMathExtras.h>
#include <c10/xpu/XPUCachingAllocator.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

#include "guarded_blocks.h"
#include "host_device.h"
#include "platform.h"

namespace quillon::host_device {
namespace {

using c10::CachingAllocator::StatType;
using c10::CachingDeviceAllocator::DeviceStats;

constexpr size_t kHugePage = size_t{2} << 20;
constexpr size_t kSmallClass = 512;  // smallest block
// The memory is the machine's own. Beyond this much of it idle in the cache, freed blocks go back to the
// system.
constexpr size_t kMaxIdleBytes = size_t{2} << 30;

size_t size_class(size_t size) {
  if (guard() != Guard::kNone) return size;
  if (size <= kSmallClass) return kSmallClass;
  const size_t step = std::max(size_t{1} << (c10::llvm::Log2_64(size - 1) - 3), kAlignment);
  return (size + step - 1) / step * step;
}

struct Block {
  size_t size;       // of its class
  size_t requested;  // by the caller
  c10::DeviceIndex device;
  c10::StreamId stream;
  std::vector<c10::Stream> other_streams;  // from record_stream
};

struct DeferredBlock {
  void* pointer;
  Block block;
  std::vector<sycl::event> events;
};

using PoolKey = std::tuple<c10::DeviceIndex, c10::StreamId, size_t>;

void increase(c10::CachingAllocator::StatArray& stat, size_t amount) {
  stat[static_cast<size_t>(StatType::AGGREGATE)].increase(amount);
}
void decrease(c10::CachingAllocator::StatArray& stat, size_t amount) {
  stat[static_cast<size_t>(StatType::AGGREGATE)].decrease(amount);
}

// Large blocks are mostly weights, read from end to end: fewer, larger pages spare the processor address
// look-ups.
void ask_for_huge_pages(void* pointer, size_t size) {
  if (size < kHugePage) return;
  const auto start = reinterpret_cast<uintptr_t>(pointer);
  const uintptr_t first = (start + kHugePage - 1) / kHugePage * kHugePage,
                  last = (start + size) / kHugePage * kHugePage;
  // Only a hint: where the system has no such pages, nothing is lost.
  if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

void delete_block(void* pointer);

class HostDeviceAllocator final : public c10::xpu::XPUCachingAllocator::XPUAllocator {
 public:
  void init(c10::DeviceIndex /*device_count*/) override { initialize(); }
  bool initialized() override { return is_initialized(); }

  c10::DataPtr allocate(size_t size) override { return allocate_on(size, c10::xpu::current_device()); }

  c10::DataPtr allocate_on(size_t size, c10::DeviceIndex device) {
    void* pointer = size == 0 ? nullptr : take(size, device);
    return {pointer, pointer, &delete_block, c10::Device(c10::kXPU, device)};
  }

  c10::DeleterFnPtr raw_deleter() const override { return &delete_block; }
  void* raw_alloc(size_t size) override { return size == 0 ? nullptr : take(size, c10::xpu::current_device()); }
  void raw_delete(void* pointer) override { give_back(pointer); }

  void copy_data(void* destination, const void* source, size_t count) const override {
    for (c10::DeviceIndex device : {find_device(destination), find_device(source)}) {
      if (device >= 0) wait_for_current_stream(device);
    }
    default_copy_data(destination, source, count);
  }

  void recordStream(const c10::DataPtr& data, c10::Stream stream) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = used_.find(data.get());
    if (found == used_.end()) return;  // empty, or memory of someone else's making
    Block& block = found->second;
    if (stream.id() == block.stream && stream.device_index() == block.device) return;
    auto& others = block.other_streams;
    if (std::find(others.begin(), others.end(), stream) == others.end()) others.push_back(stream);
  }

  void emptyCache(c10::MempoolId_t /*pool*/) override {
    std::lock_guard<std::mutex> lock(mutex_);
    collect_deferred(/*wait=*/true);
    release_idle_blocks();
  }

  DeviceStats getDeviceStats(c10::DeviceIndex device) override {
    c10::xpu::check_device_index(device);
    std::lock_guard<std::mutex> lock(mutex_);
    return stats_[device];
  }

  void resetAccumulatedStats(c10::DeviceIndex device) override {
    for_each_stat(device, [](auto& stat) { stat.reset_accumulated(); });
  }
  void resetPeakStats(c10::DeviceIndex device) override {
    for_each_stat(device, [](auto& stat) { stat.reset_peak(); });
  }

  std::pair<size_t, size_t> getMemoryInfo(c10::DeviceIndex device) override {
    c10::xpu::check_device_index(device);
    return memory_info();
  }

  bool owns(void* block) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return used_.find(block) != used_.end();
  }

  c10::DeviceIndex find_device(const void* pointer) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = used_.find(const_cast<void*>(pointer));
    if (found != used_.end()) return found->second.device;
    const auto* wanted = static_cast<const char*>(pointer);
    for (const auto& [start, block] : used_) {
      const auto* first = static_cast<const char*>(start);
      if (wanted >= first && wanted < first + block.size) return block.device;
    }
    return -1;
  }

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

  void give_back(void* pointer) {
    // At process exit tensors may outlive the SYCL runtime; the system takes their memory back.
    if (!pointer || is_shut_down()) return;
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = used_.find(pointer);
    TORCH_INTERNAL_ASSERT(found != used_.end(), "host device: freed memory that it did not allocate");
    Block block = std::move(found->second);
    used_.erase(found);
    DeviceStats& stats = stats_[block.device];
    decrease(stats.allocation, 1);
    decrease(stats.allocated_bytes, block.size);
    decrease(stats.requested_bytes, block.requested);
    report(pointer, -static_cast<int64_t>(block.size), block.device);
    if (block.other_streams.empty() || in_bad_fork()) {
      make_idle(pointer, block);
      return;
    }
    DeferredBlock deferred{pointer, block, {}};
    for (const c10::Stream& stream : block.other_streams) {
      deferred.events.push_back(c10::xpu::XPUStream(stream).queue().ext_oneapi_submit_barrier());
    }
    deferred_.push_back(std::move(deferred));
  }

 private:
  void* take(size_t size, c10::DeviceIndex device) {
    const size_t rounded = size_class(size);
    const c10::StreamId stream = c10::xpu::getCurrentXPUStream(device).id();
    std::lock_guard<std::mutex> lock(mutex_);
    if (!deferred_.empty()) collect_deferred(/*wait=*/false);
    DeviceStats& stats = stats_[device];
    void* pointer = nullptr;
    auto idle = idle_.find({device, stream, rounded});
    if (idle != idle_.end() && !idle->second.empty()) {
      pointer = idle->second.back();
      idle->second.pop_back();
      idle_bytes_ -= rounded;
    } else {
      pointer = allocate_block(rounded, device);
    }
    used_.emplace(pointer, Block{rounded, size, device, stream, {}});
    increase(stats.allocation, 1);
    increase(stats.active, 1);
    increase(stats.allocated_bytes, rounded);
    increase(stats.active_bytes, rounded);
    increase(stats.requested_bytes, size);
    report(pointer, static_cast<int64_t>(rounded), device);
    return pointer;
  }

  void* allocate_block(size_t size, c10::DeviceIndex device) {
    Platform& sycl_platform = platform();
    const auto attempt = [&] {
      if (guard() != Guard::kNone) return allocate_guarded(size);
      return sycl::aligned_alloc_shared(kAlignment, size, sycl_platform.device, sycl_platform.context);
    };
    void* pointer = attempt();
    DeviceStats& stats = stats_[device];
    if (!pointer) {
      ++stats.num_alloc_retries;
      collect_deferred(/*wait=*/true);
      release_idle_blocks();
      pointer = attempt();
    }
    if (!pointer) {
      ++stats.num_ooms;
      const auto [free_bytes, total_bytes] = memory_info();
      TORCH_CHECK_WITH(OutOfMemoryError, false, "XPU out of memory. Tried to allocate ", size, " bytes on host device ",
                       static_cast<int>(device), "; the machine has ", free_bytes, " of ", total_bytes, " bytes free.");
    }
    if (guard() == Guard::kNone) ask_for_huge_pages(pointer, size);
    ++stats.num_device_alloc;
    increase(stats.segment, 1);
    increase(stats.reserved_bytes, size);
    return pointer;
  }

  void make_idle(void* pointer, const Block& block) {
    DeviceStats& stats = stats_[block.device];
    decrease(stats.active, 1);
    decrease(stats.active_bytes, block.size);
    if (guard() != Guard::kNone || idle_bytes_ + block.size > kMaxIdleBytes) {
      release(pointer, block.device, block.stream, block.size);
      return;
    }
    idle_[{block.device, block.stream, block.size}].push_back(pointer);
    idle_bytes_ += block.size;
  }

  void release(void* pointer, c10::DeviceIndex device, c10::StreamId stream, size_t size) {
    if (in_bad_fork()) return;
    wait_for_stream(device, stream);
    if (guard() != Guard::kNone) {
      free_guarded(pointer, size);
    } else {
      sycl::free(pointer, platform().context);
    }
    DeviceStats& stats = stats_[device];
    ++stats.num_device_free;
    decrease(stats.segment, 1);
    decrease(stats.reserved_bytes, size);
  }

  void release_idle_blocks() {
    for (const auto& [key, pointers] : idle_) {
      const auto& [device, stream, size] = key;
      for (void* pointer : pointers) release(pointer, device, stream, size);
    }
    idle_.clear();
    idle_bytes_ = 0;
  }

  void collect_deferred(bool wait) {
    const auto finished = [&](DeferredBlock& deferred) {
      for (sycl::event& event : deferred.events) {
        if (wait) event.wait();
        const auto status = event.get_info<sycl::info::event::command_execution_status>();
        if (status != sycl::info::event_command_status::complete) return false;
      }
      make_idle(deferred.pointer, deferred.block);
      return true;
    };
    deferred_.erase(std::remove_if(deferred_.begin(), deferred_.end(), finished), deferred_.end());
  }

  void report(void* pointer, int64_t change, c10::DeviceIndex device) {
    if (!c10::memoryProfilingEnabled()) return;
    const auto total = [](const auto& stat) {
      return static_cast<size_t>(stat[static_cast<size_t>(StatType::AGGREGATE)].current);
    };
    const DeviceStats& stats = stats_[device];
    c10::reportMemoryUsageToProfiler(pointer, change, total(stats.allocated_bytes), total(stats.reserved_bytes),
                                     c10::Device(c10::kXPU, device));
  }

  template <typename Change>
  void for_each_stat(c10::DeviceIndex device, Change change) {
    c10::xpu::check_device_index(device);
    std::lock_guard<std::mutex> lock(mutex_);
    DeviceStats& stats = stats_[device];
    for (auto* kind :
         {&stats.allocation, &stats.segment, &stats.active, &stats.inactive_split, &stats.allocated_bytes,
          &stats.reserved_bytes, &stats.active_bytes, &stats.inactive_split_bytes, &stats.requested_bytes}) {
      for (auto& stat : *kind) change(stat);
    }
    change(stats.oversize_allocations);
    change(stats.oversize_segments);
  }

  mutable std::mutex mutex_;
  ska::flat_hash_map<void*, Block> used_;
  std::map<PoolKey, std::vector<void*>> idle_;
  size_t idle_bytes_ = 0;
  std::vector<DeferredBlock> deferred_;
  std::array<DeviceStats, kMaxDevices> stats_;
};

// Never destroyed: tensors in static storage may be freed later than any static object of ours.
HostDeviceAllocator& device_allocator() {
  static auto& instance = *new HostDeviceAllocator();
  return instance;
}

void delete_block(void* pointer) {
  device_allocator().give_back(pointer);
}

}  // namespace

c10::DataPtr allocate_on_device(size_t size, c10::DeviceIndex device) {
  return device_allocator().allocate_on(size, device);
}

void hold_allocator() {
  device_allocator().lock();
}
void let_go_of_allocator() {
  device_allocator().unlock();
}

bool is_device_block(const c10::DataPtr& data) noexcept {
  return data.get_deleter() == &delete_block;
}

bool owns_block(void* pointer) {
  return device_allocator().owns(pointer);
}

c10::DeviceIndex find_device_of_pointer(const void* pointer) {
  return device_allocator().find_device(pointer);
}

std::pair<size_t, size_t> memory_info() {
  size_t total_kib = 0, available_kib = 0;
  if (FILE* file = std::fopen("/proc/meminfo", "r")) {
    char line[128];
    while (std::fgets(line, sizeof line, file)) {
      std::sscanf(line, "MemTotal: %zu kB", &total_kib);
      std::sscanf(line, "MemAvailable: %zu kB", &available_kib);
    }
    std::fclose(file);
  }
  return {available_kib << 10, total_kib << 10};
}

}  // namespace quillon::host_device

namespace c10::xpu::XPUCachingAllocator {

std::atomic<XPUAllocator*> allocator{nullptr};

namespace {

struct Registration {
  Registration() {
    auto* instance = &quillon::host_device::device_allocator();
    SetAllocator(kXPU, instance);
    allocator.store(instance);
  }
};

const Registration registration;

}  // namespace

}  // namespace c10::xpu::XPUCachingAllocator
