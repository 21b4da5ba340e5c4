#include "engine/reproducible_build.h"

#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "quorix/interrupt.h"
#include "quorix/messages.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;

// Whole blocks of one append, read in place.
struct BlockSpan {
  const std::byte* values;  // the first value of block `first`
  std::uint64_t first;      // its block index
  std::size_t width;        // bytes per element
  ClassID id;
  double delta;
  std::uint32_t seed;

  const std::byte* block(std::uint64_t k) const {
    return values + (k - first) * kBlockSize * width;
  }
};

constexpr const char* kInterrupted = "QUORIX:interrupt:Interrupted";

bool isInterrupt(const quorix::MsgIDException& e) { return e.identifier() == kInterrupted; }

// A call into the module on a worker thread. The runtime's check clears the
// flag when it raises, so the leaves still running on other workers would
// not see it and would finish their blocks (seconds for some data); setting
// it again lets each of them stop at its next check. The build clears it
// once every worker has stopped (interruptible).
template <class Work>
auto onWorker(Work&& work) {
  try {
    return work();
  } catch (const quorix::MsgIDException& e) {
    if (isInterrupt(e)) {
      quorix::requestInterrupt();
    }
    throw;
  }
}

// Runs a public operation; an interrupt leaves with the flag cleared, as
// the runtime's check leaves it.
template <class Work>
void interruptible(Work&& work) {
  try {
    work();
  } catch (const quorix::MsgIDException& e) {
    if (isInterrupt(e)) {
      quorix::clearInterrupt();
    }
    throw;
  }
}

// Node j of `level` over whole blocks: the two halves side by side, then
// their merge. Null when cancelled.
HostArrayPtr subtree(const BlockSpan& span, unsigned level, std::uint64_t j) {
  if (level == 0) {
    return onWorker(
        [&] { return digestBlock(span.block(j), kBlockSize, span.id, span.delta, span.seed, j); });
  }
  HostArrayPtr left;
  HostArrayPtr right;
  tbb::parallel_invoke([&] { left = subtree(span, level - 1, 2 * j); },
                       [&] { right = subtree(span, level - 1, 2 * j + 1); });
  if (!left || !right) {
    // A half was cancelled, not run: an error elsewhere in the build (an
    // interrupt) cancelled the group and reaches the caller from there.
    return nullptr;
  }
  onWorker([&] {
    mergeNodes(*left, *right, level, j, span.seed);
    return true;
  });
  return left;
}

// One aligned subtree of an append: node `index` of `level`.
struct Piece {
  unsigned level;
  std::uint64_t index;
};

// Cuts blocks [first, first + count) into the largest aligned subtrees, in
// block order.
std::vector<Piece> alignedPieces(std::uint64_t first, std::uint64_t count) {
  std::vector<Piece> pieces;
  while (count > 0) {
    const unsigned fits = static_cast<unsigned>(std::bit_width(count)) - 1;
    const unsigned aligned = first == 0 ? fits : static_cast<unsigned>(std::countr_zero(first));
    const unsigned level = std::min(fits, aligned);
    pieces.push_back({level, first >> level});
    first += std::uint64_t{1} << level;
    count -= std::uint64_t{1} << level;
  }
  return pieces;
}

}  // namespace

ReproducibleBuild::ReproducibleBuild(const BuildOptions& options)
    : options_(options), empty_(emptyDigest(options.delta)), blocks_(options.firstBlock) {
  if (options_.threads > 0) {
    arena_ = std::make_unique<tbb::task_arena>(static_cast<int>(options_.threads));
  }
}

ReproducibleBuild::~ReproducibleBuild() = default;

template <class Work>
void ReproducibleBuild::run(Work&& work) {
  if (arena_) {
    arena_->execute(std::forward<Work>(work));
  } else {
    work();
  }
}

void ReproducibleBuild::append(const HostArray& values) {
  if (values.isEmpty()) {
    return;
  }
  if (!values.isNumeric() || values.isComplex()) {
    quorix::raiseHostError(quorix::MessageID("QUORIX:class", "RequireReal"));
  }
  append(values.realData(), values.numel(), values.classID());
}

void ReproducibleBuild::append(const void* values, std::size_t count, ClassID id) {
  const auto* next = static_cast<const std::byte*>(values);
  const std::size_t width = quorix::elementSize(id);
  if (buffered_ > 0) {
    const std::size_t take = std::min(count, kBlockSize - buffered_);
    toBuffer(next, take, id);
    next += take * width;
    count -= take;
    if (buffered_ == kBlockSize) {
      HostArrayPtr leaf = digestBlock(buffer_.data(), kBlockSize, bufferClass_, options_.delta,
                                      options_.seed, blocks_);
      buffered_ = 0;
      push(std::move(leaf), 0);
    }
  }
  const std::uint64_t whole = count / kBlockSize;
  if (whole > 0) {
    appendWholeBlocks(next, whole, id);
    next += whole * kBlockSize * width;
    count -= whole * kBlockSize;
  }
  if (count > 0) {
    toBuffer(next, count, id);
  }
}

void ReproducibleBuild::toBuffer(const std::byte* values, std::size_t count, ClassID id) {
  const std::size_t width = quorix::elementSize(id);
  // The buffer grows with what it holds, up to a block of doubles (the
  // widest form a block takes), so that many builds side by side (one per
  // group) cost memory in proportion to their values, not to their number.
  const std::size_t needed = (buffered_ + count) * sizeof(double);
  if (buffer_.size() < needed) {
    buffer_.resize(std::min(std::max(needed, 2 * buffer_.size()), kBlockSize * sizeof(double)));
  }
  if (buffered_ == 0) {
    bufferClass_ = id;
  }
  if (id == bufferClass_) {
    std::memcpy(buffer_.data() + buffered_ * width, values, count * width);
  } else {
    // A block fed from arrays of two classes: the module turns every element
    // into a double anyway, so the block holds the doubles it would see.
    auto* doubles = reinterpret_cast<double*>(buffer_.data());
    if (bufferClass_ != ClassID::Double) {
      const HostArrayPtr held = HostArray::createView(quorix::Dims{buffered_, 1}, bufferClass_,
                                                      buffer_.data(), nullptr, nullptr);
      std::vector<double> widened(buffered_);
      for (std::size_t i = 0; i < buffered_; ++i) {
        widened[i] = held->elementAsDouble(i);
      }
      std::copy(widened.begin(), widened.end(), doubles);
      bufferClass_ = ClassID::Double;
    }
    const HostArrayPtr incoming = HostArray::createView(
        quorix::Dims{count, 1}, id, const_cast<std::byte*>(values), nullptr, nullptr);
    for (std::size_t i = 0; i < count; ++i) {
      doubles[buffered_ + i] = incoming->elementAsDouble(i);
    }
  }
  buffered_ += count;
  values_ += count;
}

void ReproducibleBuild::appendWholeBlocks(const std::byte* values, std::uint64_t blocks,
                                          ClassID id) {
  const BlockSpan span{values, blocks_, quorix::elementSize(id), id, options_.delta, options_.seed};
  const std::vector<Piece> pieces = alignedPieces(blocks_, blocks);
  std::vector<HostArrayPtr> nodes(pieces.size());
  interruptible([&] {
    run([&] {
      // Grain 1: each piece is at least one block, milliseconds of work.
      tbb::parallel_for(std::size_t{0}, pieces.size(), [&](std::size_t i) {
        nodes[i] = subtree(span, pieces[i].level, pieces[i].index);
      });
    });
  });
  values_ += blocks * kBlockSize;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    push(std::move(nodes[i]), pieces[i].level);
  }
}

void ReproducibleBuild::push(HostArrayPtr node, unsigned level) {
  // The node is number blocks_ >> level of its level; a pending node on the
  // same level is its left neighbour, and their merge carries one level up.
  const std::uint64_t covered = std::uint64_t{1} << level;
  std::uint64_t j = blocks_ >> level;
  while (level < pending_.size() && pending_[level]) {
    mergeNodes(*pending_[level], *node, level + 1, j / 2, options_.seed);
    node = std::move(pending_[level]);
    j /= 2;
    ++level;
  }
  if (level >= pending_.size()) {
    pending_.resize(level + 1);
  }
  pending_[level] = std::move(node);
  blocks_ += covered;
}

HostArrayPtr ReproducibleBuild::finish() {
  if (buffered_ > 0) {
    HostArrayPtr leaf = digestBlock(buffer_.data(), buffered_, bufferClass_, options_.delta,
                                    options_.seed, blocks_);
    buffered_ = 0;
    push(std::move(leaf), 0);
  }
  // The right edge of the tree, lowest level first: a node left over below
  // is carried up unchanged until it meets a pending left neighbour.
  HostArrayPtr carry;
  for (unsigned level = 0; level < pending_.size(); ++level) {
    if (!pending_[level]) {
      continue;
    }
    if (carry) {
      const std::uint64_t j = (blocks_ >> level) - 1;
      mergeNodes(*pending_[level], *carry, level + 1, j / 2, options_.seed);
    }
    carry = std::move(pending_[level]);
  }
  pending_.clear();
  blocks_ = options_.firstBlock;
  values_ = 0;
  if (!carry) {
    return std::move(empty_);
  }
  releaseBuildStream(*carry);
  return carry;
}

HostArrayPtr reproducibleDigest(const HostArray& values, const BuildOptions& options) {
  ReproducibleBuild build(options);
  build.append(values);
  return build.finish();
}

}  // namespace zotdigest::engine
