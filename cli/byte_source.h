// Sequential reading of a file or of standard input that notices Ctrl-C.
//
// A read blocked on a slow pipe must not hold up an interrupt: the source
// waits with poll() in short slices and checks the runtime's interrupt flag
// between them, so it does not matter which thread the signal reached.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zotdigest::cli {

class ByteSource {
 public:
  // Opens a file; "-" is standard input. Throws InputError when the file
  // cannot be opened or is a directory.
  explicit ByteSource(const std::string& path);
  ~ByteSource();
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  // The path, or "standard input"; for messages.
  const std::string& name() const noexcept { return name_; }
  // The size of a regular file; nothing for pipes and terminals.
  std::optional<std::uint64_t> regularFileSize() const noexcept { return fileSize_; }

  // Reads up to n bytes; fewer only at the end of the input. Raises
  // "QUORIX:interrupt:Interrupted" when Ctrl-C was pressed, InputError on a
  // read error.
  std::size_t read(void* buffer, std::size_t n);
  // The first n bytes (fewer at the end of the input) without consuming
  // them; only before the first read.
  std::span<const std::byte> peek(std::size_t n);
  // Everything left; InputError beyond `limit` bytes.
  std::vector<std::byte> readAll(std::uint64_t limit);

 private:
  std::size_t readSome(std::byte* buffer, std::size_t n);

  int fd_ = -1;
  bool ownsFd_ = false;
  bool isRegular_ = false;
  std::string name_;
  std::optional<std::uint64_t> fileSize_;
  std::vector<std::byte> peeked_;
  std::size_t peekedPos_ = 0;
};

}  // namespace zotdigest::cli
