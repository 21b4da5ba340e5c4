#include "engine/large_buffer.h"

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace zotdigest::engine {
namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;

}  // namespace

LargeBuffer::LargeBuffer(std::size_t bytes) {
  if (bytes == 0) {
    return;
  }
  if (bytes < kHugePage) {
    memory_.reset(static_cast<std::byte*>(std::malloc(bytes)));
  } else {
    // aligned_alloc wants a multiple of the alignment.
    const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    memory_.reset(static_cast<std::byte*>(std::aligned_alloc(kHugePage, rounded)));
#ifdef MADV_HUGEPAGE
    if (memory_) {
      // Advice only: without huge pages the buffer works the same.
      madvise(memory_.get(), rounded, MADV_HUGEPAGE);
    }
#endif
  }
  if (!memory_) {
    throw std::bad_alloc();
  }
}

void LargeBuffer::Free::operator()(std::byte* p) const noexcept { std::free(p); }

}  // namespace zotdigest::engine
