#include "cli/byte_source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cli/cli_errors.h"
#include "quorix/interrupt.h"

namespace zotdigest::cli {
namespace {

// Short enough that Ctrl-C feels immediate, long enough to cost nothing.
constexpr int kPollSliceMs = 100;

}  // namespace

ByteSource::ByteSource(const std::string& path) {
  if (path == "-") {
    fd_ = STDIN_FILENO;
    name_ = "standard input";
  } else {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      throw InputError("cannot open '" + path + "': " + std::strerror(errno));
    }
    ownsFd_ = true;
    name_ = path;
  }
  struct stat st {};
  if (::fstat(fd_, &st) == 0) {
    if (S_ISDIR(st.st_mode)) {
      if (ownsFd_) {
        ::close(fd_);
      }
      throw InputError("'" + path + "' is a directory");
    }
    if (S_ISREG(st.st_mode)) {
      isRegular_ = true;
      fileSize_ = static_cast<std::uint64_t>(st.st_size);
    }
  }
}

ByteSource::~ByteSource() {
  if (ownsFd_) {
    ::close(fd_);
  }
}

std::size_t ByteSource::readSome(std::byte* buffer, std::size_t n) {
  for (;;) {
    quorix::checkInterrupt();
    if (!isRegular_) {
      pollfd p{fd_, POLLIN, 0};
      const int ready = ::poll(&p, 1, kPollSliceMs);
      if (ready == 0 || (ready < 0 && errno == EINTR)) {
        continue;
      }
    }
    const ssize_t got = ::read(fd_, buffer, n);
    if (got >= 0) {
      return static_cast<std::size_t>(got);
    }
    if (errno == EINTR || errno == EAGAIN) {
      continue;
    }
    throw InputError("cannot read " + name_ + ": " + std::strerror(errno));
  }
}

std::size_t ByteSource::read(void* buffer, std::size_t n) {
  auto* out = static_cast<std::byte*>(buffer);
  std::size_t done = 0;
  if (peekedPos_ < peeked_.size()) {
    done = std::min(n, peeked_.size() - peekedPos_);
    std::memcpy(out, peeked_.data() + peekedPos_, done);
    peekedPos_ += done;
  }
  while (done < n) {
    const std::size_t got = readSome(out + done, n - done);
    if (got == 0) {
      break;
    }
    done += got;
  }
  return done;
}

std::span<const std::byte> ByteSource::peek(std::size_t n) {
  if (peeked_.size() < n) {
    const std::size_t have = peeked_.size();
    peeked_.resize(n);
    std::size_t done = have;
    while (done < n) {
      const std::size_t got = readSome(peeked_.data() + done, n - done);
      if (got == 0) {
        break;
      }
      done += got;
    }
    peeked_.resize(done);
  }
  return std::span<const std::byte>(peeked_).first(std::min(n, peeked_.size()));
}

std::vector<std::byte> ByteSource::readAll(std::uint64_t limit) {
  std::vector<std::byte> all;
  if (fileSize_) {
    if (*fileSize_ > limit) {
      throw InputError(name_ + " is too large (" + std::to_string(*fileSize_) + " bytes)");
    }
    all.reserve(static_cast<std::size_t>(*fileSize_));
  }
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  for (;;) {
    const std::size_t have = all.size();
    all.resize(have + kPiece);
    const std::size_t got = read(all.data() + have, kPiece);
    all.resize(have + got);
    if (all.size() > limit) {
      throw InputError(name_ + " is too large (more than " + std::to_string(limit) + " bytes)");
    }
    if (got < kPiece) {
      return all;
    }
  }
}

}  // namespace zotdigest::cli
