#include "cli/text_stream.h"

#include <zlib.h>

#include <vector>

#include "cli/cli_errors.h"

namespace zotdigest::cli {

struct TextStream::Inflater {
  z_stream z{};
  std::vector<unsigned char> in = std::vector<unsigned char>(std::size_t{1} << 18);
  bool inputEnded = false;   // the source has no more bytes
  bool memberEnded = false;  // the last gzip member read was complete
  bool finished = false;
  Inflater() {
    // 16 + 15: a gzip wrapper around a deflate stream of any window size.
    if (inflateInit2(&z, 16 + MAX_WBITS) != Z_OK) {
      throw std::bad_alloc();
    }
  }
  ~Inflater() { inflateEnd(&z); }
};

TextStream::TextStream(std::unique_ptr<ByteSource> source) : source_(std::move(source)) {
  const auto magic = source_->peek(2);
  if (magic.size() == 2 && magic[0] == std::byte{0x1f} && magic[1] == std::byte{0x8b}) {
    inflater_ = std::make_unique<Inflater>();
  }
}

TextStream::~TextStream() = default;

std::size_t TextStream::read(char* out, std::size_t n) {
  return inflater_ ? inflate(out, n) : source_->read(out, n);
}

std::size_t TextStream::inflate(char* out, std::size_t n) {
  Inflater& f = *inflater_;
  z_stream& z = f.z;
  z.next_out = reinterpret_cast<unsigned char*>(out);
  z.avail_out = static_cast<uInt>(n);
  while (z.avail_out > 0 && !f.finished) {
    if (z.avail_in == 0 && !f.inputEnded) {
      const std::size_t got = source_->read(f.in.data(), f.in.size());
      f.inputEnded = got < f.in.size();
      z.next_in = f.in.data();
      z.avail_in = static_cast<uInt>(got);
    }
    if (z.avail_in == 0 && f.inputEnded) {
      if (!f.memberEnded) {
        throw InputError(name() + ": the gzip stream ends early (the file is cut short)");
      }
      f.finished = true;
      break;
    }
    if (f.memberEnded) {
      // More bytes after a complete member: the next member of a
      // concatenated gzip file.
      inflateReset(&z);
      f.memberEnded = false;
    }
    const int rc = ::inflate(&z, Z_NO_FLUSH);
    if (rc == Z_STREAM_END) {
      f.memberEnded = true;
    } else if (rc == Z_MEM_ERROR) {
      throw std::bad_alloc();
    } else if (rc != Z_OK && rc != Z_BUF_ERROR) {
      throw InputError(
          name() + ": damaged gzip stream (" +
          (z.msg != nullptr ? std::string(z.msg) : "zlib error " + std::to_string(rc)) + ")");
    }
  }
  return n - z.avail_out;
}

}  // namespace zotdigest::cli
