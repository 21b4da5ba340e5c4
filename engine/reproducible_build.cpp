#include "engine/reproducible_build.h"

#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "engine/errors.h"
#include "engine/worker_interrupts.h"
#include "quorix/messages.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArray;
using quorix::HostArrayPtr;
using LeafMaker = std::function<HostArrayPtr(std::uint64_t)>;

// Node j of `level` over whole blocks: the two halves side by side, then
// their merge. Null when cancelled.
HostArrayPtr subtree(const LeafMaker& leaf, std::uint32_t seed, unsigned level, std::uint64_t j) {
  if (level == 0) {
    return onWorker([&] { return leaf(j); });
  }
  HostArrayPtr left;
  HostArrayPtr right;
  tbb::parallel_invoke([&] { left = subtree(leaf, seed, level - 1, 2 * j); },
                       [&] { right = subtree(leaf, seed, level - 1, 2 * j + 1); });
  if (!left || !right) {
    // A half was cancelled, not run: an error elsewhere in the build (an
    // interrupt) cancelled the group and reaches the caller from there.
    return nullptr;
  }
  onWorker([&] {
    mergeNodes(*left, *right, level, j, seed);
    return true;
  });
  return left;
}

// The end of the shortest prefix of weights[0..count) that holds `pairs`
// non-zero weights; count when it holds fewer.
std::size_t endOfPairs(const std::uint64_t* weights, std::size_t count, std::size_t pairs) {
  std::size_t i = 0;
  for (; i < count && pairs > 0; ++i) {
    pairs -= weights[i] != 0 ? 1 : 0;
  }
  return i;
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
  if (options_.weighted) {
    throw std::logic_error("append on a weighted build: use appendWeighted");
  }
  if (values.isEmpty()) {
    return;
  }
  if (!values.isNumeric() || values.isComplex()) {
    quorix::raiseHostError(quorix::MessageID("QUORIX:class", "RequireReal"));
  }
  append(values.realData(), values.numel(), values.classID());
}

void ReproducibleBuild::append(const void* values, std::size_t count, ClassID id) {
  if (options_.weighted) {
    throw std::logic_error("append on a weighted build: use appendWeighted");
  }
  const auto* next = static_cast<const std::byte*>(values);
  const std::size_t width = quorix::elementSize(id);
  if (buffered_ > 0) {
    const std::size_t take = std::min(count, kBlockSize - buffered_);
    toBuffer(next, take, id);
    next += take * width;
    count -= take;
    if (buffered_ == kBlockSize) {
      push(bufferedLeaf(), 0);
    }
  }
  const std::uint64_t whole = count / kBlockSize;
  if (whole > 0) {
    const std::uint64_t first = blocks_;
    const double delta = options_.delta;
    const std::uint32_t seed = options_.seed;
    appendWholeBlocks(
        [=](std::uint64_t k) {
          return digestBlock(next + (k - first) * kBlockSize * width, kBlockSize, id, delta, seed,
                             k);
        },
        whole);
    values_ += whole * kBlockSize;
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

void ReproducibleBuild::appendWeighted(const void* values, ClassID id, const std::uint64_t* weights,
                                       std::size_t count) {
  if (!options_.weighted) {
    throw std::logic_error("appendWeighted on an unweighted build: use append");
  }
  std::uint64_t sum = weightSum_;
  for (std::size_t i = 0; i < count; ++i) {
    if (__builtin_add_overflow(sum, weights[i], &sum)) {
      throw InputError("the weights add up to more than 2^64 - 1 at position " + std::to_string(i) +
                       " of this append");
    }
  }
  weightSum_ = sum;
  const auto* next = static_cast<const std::byte*>(values);
  const std::size_t width = quorix::elementSize(id);
  std::size_t done = 0;
  if (buffered_ > 0) {
    done = endOfPairs(weights, count, kBlockSize - buffered_);
    toWeightedBuffer(next, id, weights, done);
    if (buffered_ == kBlockSize) {
      push(bufferedLeaf(), 0);
    }
  }
  // Where each whole block of the rest ends: bounds[b] to bounds[b + 1].
  std::vector<std::size_t> bounds{done};
  for (std::size_t i = done, pairs = 0; i < count; ++i) {
    if (weights[i] != 0 && ++pairs == kBlockSize) {
      bounds.push_back(i + 1);
      pairs = 0;
    }
  }
  if (bounds.size() > 1) {
    const std::uint64_t first = blocks_;
    const double delta = options_.delta;
    const std::uint32_t seed = options_.seed;
    appendWholeBlocks(
        [&, first, delta, seed](std::uint64_t k) {
          const std::size_t from = bounds[k - first];
          return digestWeightedBlock(next + from * width, id, weights + from,
                                     bounds[k - first + 1] - from, delta, seed, k);
        },
        bounds.size() - 1);
  }
  const std::size_t tail = bounds.back();
  toWeightedBuffer(next + tail * width, id, weights + tail, count - tail);
  values_ += count;
}

void ReproducibleBuild::toWeightedBuffer(const std::byte* values, ClassID id,
                                         const std::uint64_t* weights, std::size_t count) {
  if (count == 0) {
    return;
  }
  // Grows like the unweighted buffer: room for every pair of this append
  // (the zero-weight ones are not kept), up to one block.
  const std::size_t needed = std::min(buffered_ + count, kBlockSize);
  if (bufferWeights_.size() < needed) {
    const std::size_t grown = std::min(std::max(needed, 2 * bufferWeights_.size()), kBlockSize);
    buffer_.resize(grown * sizeof(double));
    bufferWeights_.resize(grown);
  }
  // Held as the doubles the leaf would read them as.
  auto* doubles = reinterpret_cast<double*>(buffer_.data());
  const HostArrayPtr incoming = HostArray::createView(
      quorix::Dims{count, 1}, id, const_cast<std::byte*>(values), nullptr, nullptr);
  for (std::size_t i = 0; i < count; ++i) {
    if (weights[i] != 0) {
      doubles[buffered_] = incoming->elementAsDouble(i);
      bufferWeights_[buffered_] = weights[i];
      ++buffered_;
    }
  }
  bufferClass_ = ClassID::Double;
}

HostArrayPtr ReproducibleBuild::bufferedLeaf() {
  const std::size_t count = buffered_;
  buffered_ = 0;
  if (options_.weighted) {
    return digestWeightedBlock(buffer_.data(), ClassID::Double, bufferWeights_.data(), count,
                               options_.delta, options_.seed, blocks_);
  }
  return digestBlock(buffer_.data(), count, bufferClass_, options_.delta, options_.seed, blocks_);
}

void ReproducibleBuild::appendWholeBlocks(const LeafMaker& leaf, std::uint64_t count) {
  const std::vector<Piece> pieces = alignedPieces(blocks_, count);
  std::vector<HostArrayPtr> nodes(pieces.size());
  const std::uint32_t seed = options_.seed;
  interruptible([&] {
    run([&] {
      // Grain 1: each piece is at least one block, milliseconds of work.
      tbb::parallel_for(std::size_t{0}, pieces.size(), [&](std::size_t i) {
        nodes[i] = subtree(leaf, seed, pieces[i].level, pieces[i].index);
      });
    });
  });
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
    push(bufferedLeaf(), 0);
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
  weightSum_ = 0;
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

HostArrayPtr reproducibleDigest(const void* values, ClassID id, const std::uint64_t* weights,
                                std::size_t count, BuildOptions options) {
  options.weighted = true;
  ReproducibleBuild build(options);
  build.appendWeighted(values, id, weights, count);
  return build.finish();
}

}  // namespace zotdigest::engine
