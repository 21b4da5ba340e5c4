// The bytes of an input as text: read as they are, or inflated on the fly
// when the input is gzip-compressed (known by its magic bytes, whatever its
// name). Memory is one compressed buffer and zlib's window, whatever the
// input's size.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "cli/byte_source.h"

namespace zotdigest::cli {

class TextStream {
 public:
  explicit TextStream(std::unique_ptr<ByteSource> source);
  ~TextStream();
  TextStream(const TextStream&) = delete;
  TextStream& operator=(const TextStream&) = delete;

  const std::string& name() const noexcept { return source_->name(); }
  bool compressed() const noexcept { return inflater_ != nullptr; }
  // Reads up to n bytes; fewer only at the end. InputError naming the input
  // when a compressed stream is damaged or cut short.
  std::size_t read(char* out, std::size_t n);

 private:
  struct Inflater;
  std::size_t inflate(char* out, std::size_t n);

  std::unique_ptr<ByteSource> source_;
  std::unique_ptr<Inflater> inflater_;
};

}  // namespace zotdigest::cli
