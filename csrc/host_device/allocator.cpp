// The device allocator: shared USM of the one SYCL context, cached per device and stream, and the two
// allocators that stand on it, PyTorch's CPU allocator redirected inside the CPU fallback and the pinned
// allocator.
//
// Sizes are rounded up to classes, eight to the doubling (at most 12.5 percent waste), and a freed block
// waits for the next request of its class on its stream: kernels of one stream run in order, so it may be
// handed out while the kernel that used it last still runs. A block that record_stream() put on further
// streams is handed out only after all work those streams had at the time of the free.
#include <c10/core/CPUAllocator.h>
#include <c10/util/flat_hash_map.h>
#include <c10/util/llvmMathExtras.h>
#include <c10/xpu/XPUCachingAllocator.h>
#include <sys/mman.h>

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>

#include "host_device.h"
#include "platform.h"

namespace quillon::host_device {
namespace {

using c10::CachingAllocator::StatType;
using c10::CachingDeviceAllocator::DeviceStats;

constexpr size_t kAlignment = 64;  // a cache line, and the widest vector of the CPU device
constexpr size_t kHugePage = size_t{2} << 20;
constexpr size_t kSmallClass = 512;  // smallest block
// The memory is the machine's own. Beyond this much of it idle in the cache, freed blocks go back to the
// system.
constexpr size_t kMaxIdleBytes = size_t{2} << 30;

size_t size_class(size_t size) {
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
    ask_for_huge_pages(pointer, size);
    ++stats.num_device_alloc;
    increase(stats.segment, 1);
    increase(stats.reserved_bytes, size);
    return pointer;
  }

  void make_idle(void* pointer, const Block& block) {
    DeviceStats& stats = stats_[block.device];
    decrease(stats.active, 1);
    decrease(stats.active_bytes, block.size);
    if (idle_bytes_ + block.size > kMaxIdleBytes) {
      release(pointer, block.device, block.stream, block.size);
      return;
    }
    idle_[{block.device, block.stream, block.size}].push_back(pointer);
    idle_bytes_ += block.size;
  }

  void release(void* pointer, c10::DeviceIndex device, c10::StreamId stream, size_t size) {
    if (in_bad_fork()) return;
    wait_for_stream(device, stream);
    sycl::free(pointer, platform().context);
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

thread_local c10::DeviceIndex redirect_to = -1;

c10::DeleterFnPtr delete_ordinary = nullptr;

void delete_raw(void* pointer) {
  if (device_allocator().owns(pointer)) {
    delete_block(pointer);
  } else {
    delete_ordinary(pointer);
  }
}

class RedirectingCpuAllocator final : public c10::Allocator {
 public:
  explicit RedirectingCpuAllocator(c10::Allocator* ordinary) : ordinary_(ordinary) {
    delete_ordinary = ordinary->raw_deleter();
  }

  c10::DataPtr allocate(size_t size) override {
    if (redirect_to < 0) return ordinary_->allocate(size);
    c10::DataPtr data = device_allocator().allocate_on(size, redirect_to);
    data.unsafe_set_device(c10::Device(c10::kCPU));
    return data;
  }

  // PyTorch's oneDNN takes its memory by raw_allocate(), inside the fallback and outside, and keeps some of
  // it from one call to the next. Only the address tells which kind it is.
  c10::DeleterFnPtr raw_deleter() const override { return &delete_raw; }

  void copy_data(void* destination, const void* source, size_t count) const override {
    ordinary_->copy_data(destination, source, count);
  }

 private:
  c10::Allocator* ordinary_;
};

void delete_pinned(void* pointer) {
  if (pointer && !is_shut_down() && !in_bad_fork()) sycl::free(pointer, platform().context);
}

// Copies to and from a host device are finished when they return, so no kernel can still use freed pinned
// memory.
class PinnedAllocator final : public c10::Allocator {
 public:
  c10::DataPtr allocate(size_t size) override {
    void* pointer = nullptr;
    if (size > 0) {
      pointer = sycl::aligned_alloc_host(kAlignment, size, platform().context);
      TORCH_CHECK_WITH(OutOfMemoryError, pointer, "Cannot allocate ", size, " bytes of pinned memory.");
    }
    return {pointer, pointer, &delete_pinned, c10::Device(c10::kCPU)};
  }
  c10::DeleterFnPtr raw_deleter() const override { return &delete_pinned; }
  void copy_data(void* destination, const void* source, size_t count) const override {
    default_copy_data(destination, source, count);
  }
};

}  // namespace

c10::DataPtr allocate_on_device(size_t size, c10::DeviceIndex device) {
  return device_allocator().allocate_on(size, device);
}

bool is_device_block(const c10::DataPtr& data) noexcept {
  return data.get_deleter() == &delete_block;
}

c10::DeviceIndex find_device_of_pointer(const void* pointer) {
  return device_allocator().find_device(pointer);
}

c10::Allocator* redirecting_cpu_allocator() {
  static auto* instance = new RedirectingCpuAllocator(c10::GetCPUAllocator());
  return instance;
}

void install_cpu_allocator() {
  c10::Allocator* redirecting = redirecting_cpu_allocator();
  c10::SetCPUAllocator(redirecting, /*priority=*/UINT8_MAX);
}

AllocateOnDevice::AllocateOnDevice(c10::DeviceIndex device) noexcept : previous_(std::exchange(redirect_to, device)) {}
AllocateOnDevice::~AllocateOnDevice() {
  redirect_to = previous_;
}

c10::Allocator* pinned_allocator() {
  static auto* instance = new PinnedAllocator();
  return instance;
}

bool is_pinned_pointer(const void* pointer) {
  if (!is_initialized() || in_bad_fork() || is_shut_down()) return false;
  return sycl::get_pointer_type(pointer, platform().context) == sycl::usm::alloc::host;
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
namespace {

[[noreturn]] void unsupported(const char* what) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, what, " is not supported on quillon's host device.");
}

struct Registration {
  Registration() {
    auto* instance = &quillon::host_device::device_allocator();
    SetAllocator(kXPU, instance);
    allocator.store(instance);
  }
};

}  // namespace

std::atomic<XPUAllocator*> allocator{nullptr};

namespace {
const Registration registration;
}

// All host devices share one memory, so there is nothing to enable.
void enablePeerAccess(DeviceIndex dev, DeviceIndex dev_to_access) {
  check_device_index(dev);
  check_device_index(dev_to_access);
}

double getMemoryFraction(DeviceIndex device) {
  check_device_index(device);
  return 1.0;
}

void setMemoryFraction(double fraction, DeviceIndex device) {
  check_device_index(device);
  if (fraction != 1.0) unsupported("A memory fraction other than 1.0");
}

void recordHistory(bool enabled, CachingDeviceAllocator::CreateContextFn /*context_recorder*/,
                   size_t /*alloc_trace_max_entries*/, CachingDeviceAllocator::RecordContext /*when*/,
                   bool /*clearHistory*/, const std::vector<std::string>& /*skip_actions*/) {
  if (enabled) unsupported("Recording the memory history");
}

void attachAllocatorTraceTracker(CachingDeviceAllocator::AllocatorTraceTracker /*tracker*/) {
  unsupported("Tracing the allocator");
}

SnapshotInfo snapshot(MempoolId_t /*mempool_id*/) {
  unsupported("A memory snapshot");
}

void createOrIncrefPool(DeviceIndex, MempoolId_t, XPUAllocator*) {
  unsupported("A private memory pool");
}
void beginAllocateToPool(DeviceIndex, MempoolId_t, std::function<bool(sycl::queue*)>) {
  unsupported("A private memory pool");
}
void endAllocateToPool(DeviceIndex, MempoolId_t) {
  unsupported("A private memory pool");
}
void releasePool(DeviceIndex, MempoolId_t) {
  unsupported("A private memory pool");
}
int getPoolUseCount(DeviceIndex, MempoolId_t) {
  unsupported("A private memory pool");
}

}  // namespace c10::xpu::XPUCachingAllocator

namespace c10::xpu {

std::atomic<CaptureId_t> MemPool::uid_{1};
std::atomic<CaptureId_t> MemPool::uuid_{1};

MemPool::MemPool(XPUCachingAllocator::XPUAllocator* /*allocator*/, bool /*is_user_created*/, bool /*use_on_oom*/) {
  XPUCachingAllocator::unsupported("A private memory pool");
}
MemPool::~MemPool() = default;
MempoolId_t MemPool::id() {
  return id_;
}
XPUCachingAllocator::XPUAllocator* MemPool::allocator() {
  return allocator_;
}
int MemPool::use_count() {
  XPUCachingAllocator::unsupported("A private memory pool");
}
DeviceIndex MemPool::device() {
  return device_;
}
MempoolId_t MemPool::graph_pool_handle(bool is_user_created) {
  return is_user_created ? MempoolId_t{0, uid_++} : MempoolId_t{uuid_++, 0};
}

}  // namespace c10::xpu
