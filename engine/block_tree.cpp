#include "engine/block_tree.h"

#include <array>
#include <memory>

#include "engine/saved_digest_check.h"
#include "quorix/interrupt.h"
#include "quorix/module.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using quorix::ObjectSystem;

// Streams the runtime must address for a seeded generator.
constexpr std::uint64_t kStreamCount = 1000000;

// A fresh stream object per leaf and per merge: creating one costs a few
// microseconds of jumps, against milliseconds of work on a block, and no
// stream is ever shared between threads.
HostArrayPtr streamAt(std::uint32_t seed, std::uint64_t substream) {
  std::shared_ptr<quorix::RandomStream> stream =
      quorix::RandomStream::create("mrg32k3a", kStreamCount, seed);
  stream->selectSubstream(substream);
  return quorix::RandomStream::toHostValue(std::move(stream));
}

}  // namespace

HostArrayPtr digestBlock(const void* values, std::size_t count, ClassID id, double delta,
                         std::uint32_t seed, std::uint64_t block) {
  quorix::checkInterrupt();
  // The module reads the block in place, in its own element class.
  const HostArrayPtr data = HostArray::createView(quorix::Dims{count, 1}, id,
                                                  const_cast<void*>(values), nullptr, nullptr);
  const HostArrayPtr d = HostArray::createDoubleScalar(delta);
  const HostArrayPtr stream = streamAt(seed, nodeSubstream(0, block));
  const std::array<const HostArray*, 3> in = {data.get(), d.get(), stream.get()};
  return ObjectSystem::construct(kDigestClass, 3, in.data());
}

void mergeNodes(const HostArray& left, const HostArray& right, unsigned level, std::uint64_t j,
                std::uint32_t seed) {
  quorix::checkInterrupt();
  const HostArrayPtr stream = streamAt(seed, nodeSubstream(level, j));
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 3> in = {&left, &right, stream.get()};
  ObjectSystem::callMethod("merge", 0, out.data(), 3, in.data());
}

HostArrayPtr emptyDigest(double delta) {
  quorix::Module::load("libzotdigest");
  const HostArrayPtr data = HostArray::createNumericMatrix(0, 0, ClassID::Double);
  const HostArrayPtr d = HostArray::createDoubleScalar(delta);
  const std::array<const HostArray*, 2> in = {data.get(), d.get()};
  return ObjectSystem::construct(kDigestClass, 2, in.data());
}

void releaseBuildStream(const HostArray& digest) {
  // "add" without a stream takes the default stream; nothing is added.
  const HostArrayPtr none = HostArray::createNumericMatrix(0, 0, ClassID::Double);
  std::array<HostArray*, 1> out{};
  const std::array<const HostArray*, 2> in = {&digest, none.get()};
  ObjectSystem::callMethod("add", 0, out.data(), 2, in.data());
}

}  // namespace zotdigest::engine
