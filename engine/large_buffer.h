// Uninitialised memory for a buffer of many values that is written once in
// a pass and then read: the grouped build's partition.
//
// A fresh buffer of hundreds of megabytes costs a page fault per 4 KiB page
// on first touch, which on some virtual machines costs more than the pass
// that fills it. Buffers of 2 MiB and more are therefore aligned to 2 MiB
// and offered to the kernel for transparent huge pages (where the system
// has them in "madvise" mode), one fault per 2 MiB.
#pragma once

#include <cstddef>
#include <memory>

namespace zotdigest::engine {

class LargeBuffer {
 public:
  LargeBuffer() = default;
  // Throws std::bad_alloc when the memory cannot be had.
  explicit LargeBuffer(std::size_t bytes);

  std::byte* data() const noexcept { return memory_.get(); }

 private:
  struct Free {
    void operator()(std::byte* p) const noexcept;
  };
  std::unique_ptr<std::byte, Free> memory_;
};

}  // namespace zotdigest::engine
