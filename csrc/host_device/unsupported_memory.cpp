// What c10/xpu/XPUCachingAllocator.h declares beyond the allocator: memory pools, snapshots and histories, which a
// host device does not have and refuses, and peer access, for which there is nothing to do.
#include <c10/xpu/XPUCachingAllocator.h>

namespace c10::xpu::XPUCachingAllocator {
namespace {

[[noreturn]] void unsupported(const char* what) {
  TORCH_CHECK_NOT_IMPLEMENTED(false, what, " is not supported on quillon's host device.");
}

}  // namespace

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
