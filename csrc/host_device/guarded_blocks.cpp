#include "guarded_blocks.h"

#include <c10/util/Exception.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string_view>

#include "platform.h"

namespace quillon::host_device {
namespace {

constexpr const char* kVariable = "QUILLON_HOST_GUARD";
constexpr unsigned char kAround = 0xA5, kFresh = 0xFF;
// Each block costs a process up to three of its 65,530 mappings.
constexpr std::size_t kMaxFreed = 4096, kMaxFreedBytes = std::size_t{256} << 20;

std::size_t page_size() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

std::size_t round_up(std::size_t size, std::size_t unit) {
  return (size + unit - 1) / unit * unit;
}

// From the first byte of a page to the last one of a page, without the unreadable pages on either side.
struct Pages {
  unsigned char* start;
  std::size_t size;
};

Pages pages_of(void* block, std::size_t size) {
  auto* start = static_cast<unsigned char*>(block);
  return {start - reinterpret_cast<std::uintptr_t>(start) % page_size(), round_up(size, page_size())};
}

void protect(unsigned char* start, std::size_t size, int access) {
  // Fails where a process has too many mappings: without the guard there is nothing to go on for.
  if (mprotect(start, size, access) == 0) return;
  std::perror("quillon: QUILLON_HOST_GUARD: mprotect");
  std::abort();
}

void check_around(const Pages& pages, const unsigned char* block, std::size_t size) {
  for (const unsigned char* byte = pages.start; byte < pages.start + pages.size; ++byte) {
    if (byte == block) byte += size;  // its end may be that of the pages
    if (byte == pages.start + pages.size) return;
    if (*byte == kAround) continue;
    std::fprintf(stderr, "quillon: %s: byte %td of a block of %zu bytes at %p was written; it was freed now\n",
                 kVariable, byte - block, size, static_cast<const void*>(block));
    std::abort();
  }
}

// Freed blocks, which nobody may touch, the oldest first.
struct Freed {
  std::mutex mutex;
  std::deque<Pages> pages;
  std::size_t bytes = 0;
};

Freed& freed() {
  static auto& instance = *new Freed;
  return instance;
}

void release(const Pages& pages) {
  unsigned char* start = pages.start - page_size();
  protect(start, pages.size + 2 * page_size(), PROT_READ | PROT_WRITE);
  sycl::free(start, platform().context);
}

Guard read_guard() {
  const char* value = std::getenv(kVariable);
  const std::string_view text = value ? value : "";
  if (text.empty()) return Guard::kNone;
  TORCH_CHECK_VALUE(text == "behind" || text == "before", kVariable, " is '", text,
                    "'. Allowed are 'behind' and 'before': the side of a block on which an unreadable page begins.");
  return text == "behind" ? Guard::kBehind : Guard::kBefore;
}

}  // namespace

Guard guard() {
  static const Guard mode = read_guard();
  return mode;
}

void* allocate_guarded(std::size_t size) {
  const std::size_t page = page_size(), inside = round_up(size, page);
  if (inside < size) return nullptr;
  auto* start = static_cast<unsigned char*>(
      sycl::aligned_alloc_shared(page, inside + 2 * page, platform().device, platform().context));
  if (start == nullptr) return nullptr;
  protect(start, page, PROT_NONE);
  protect(start + page + inside, page, PROT_NONE);
  unsigned char* block = start + page;
  if (guard() == Guard::kBehind) block += inside - round_up(size, kGuardAlignment);
  std::memset(start + page, kAround, inside);
  std::memset(block, kFresh, size);
  return block;
}

void free_guarded(void* block, std::size_t size) noexcept {
  const Pages pages = pages_of(block, size);
  check_around(pages, static_cast<unsigned char*>(block), size);
  protect(pages.start, pages.size, PROT_NONE);
  Freed& all = freed();
  const std::lock_guard lock(all.mutex);
  all.pages.push_back(pages);
  all.bytes += pages.size;
  while (all.pages.size() > kMaxFreed || all.bytes > kMaxFreedBytes) {
    release(all.pages.front());
    all.bytes -= all.pages.front().size;
    all.pages.pop_front();
  }
}

}  // namespace quillon::host_device
