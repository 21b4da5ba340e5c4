#include "engine/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "engine/errors.h"
#include "quorix/interrupt.h"

namespace zotdigest::engine {
namespace {

[[noreturn]] void failWith(const std::string& what, const std::string& path, int err) {
  throw OutputError("cannot " + what + " '" + path + "': " + std::strerror(err));
}

// Removes the temporary file unless released.
class TempFile {
 public:
  TempFile(std::string pattern, const std::string& target) : path_(std::move(pattern)) {
    std::vector<char> name(path_.begin(), path_.end());
    name.push_back('\0');
    fd_ = ::mkostemp(name.data(), O_CLOEXEC);
    if (fd_ < 0) {
      failWith("write", target, errno);
    }
    path_.assign(name.data());
  }
  ~TempFile() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    if (!released_) {
      ::unlink(path_.c_str());
    }
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  int fd() const noexcept { return fd_; }
  const std::string& path() const noexcept { return path_; }
  void closeFd() {
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) {
      failWith("write", path_, errno);
    }
  }
  void release() noexcept { released_ = true; }

 private:
  std::string path_;
  int fd_ = -1;
  bool released_ = false;
};

mode_t modeForNewFile(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) {
    return st.st_mode & 07777;
  }
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

void writeAll(const TempFile& tmp, std::span<const std::byte> bytes) {
  const std::byte* p = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    const ssize_t n = ::write(tmp.fd(), p, left);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      failWith("write", tmp.path(), errno);
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
}

}  // namespace

void writeFileAtomically(const std::string& path, std::span<const std::byte> bytes) {
  const std::filesystem::path target(path);
  std::filesystem::path dir = target.parent_path();
  if (dir.empty()) {
    dir = ".";
  }
  // Appended rather than "." + name: g++ 12 at -O3 warns falsely (-Wrestrict)
  // about the insert at the front that operator+ compiles to.
  std::string tmpName = ".";
  tmpName.append(target.filename().string()).append(".tmp-XXXXXX");
  TempFile tmp((dir / tmpName).string(), path);
  if (::fchmod(tmp.fd(), modeForNewFile(path)) != 0) {
    failWith("set the mode of", tmp.path(), errno);
  }
  writeAll(tmp, bytes);
  if (::fsync(tmp.fd()) != 0) {
    failWith("flush", tmp.path(), errno);
  }
  tmp.closeFd();
  // The last moment to honour Ctrl-C: after the rename the job is done.
  quorix::checkInterrupt();
  if (::rename(tmp.path().c_str(), path.c_str()) != 0) {
    failWith("replace", path, errno);
  }
  tmp.release();
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    // The new name is in place; a failed directory flush only weakens the
    // durability guarantee after a power cut, so it is not an error.
    ::fsync(dirFd);
    ::close(dirFd);
  }
}

}  // namespace zotdigest::engine
