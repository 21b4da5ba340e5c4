// The reproducible parallel build: the digest of engine/block_tree.h,
// computed on oneTBB's worker threads, from values held in memory or
// appended in chunks of any size.
//
// Design note. A ReproducibleBuild is a binary counter over blocks: pending
// holds, for each tree level, the finished node still waiting for its right
// neighbour (at most one per level). An append first completes the partly
// filled block, then cuts its whole blocks into the largest aligned
// subtrees (a subtree of 2^L blocks starts at a block index divisible by
// 2^L), builds those subtrees side by side (inside each, the two halves in
// parallel, then their merge), and pushes each finished subtree into the
// counter, merging with the pending node of its level as a carry would. The
// last partial block is copied into a buffer (grown as it fills, up to one
// block) until more values come. Every merge is thus the one the definition
// names, whatever the chunks; only the memory in use and the parallelism depend on them.
//
// A weighted build first finds where each whole block of an append ends
// (a count of the non-zero weights, one pass); each leaf then reads its
// block's pairs in place. Its partial block is held as doubles and weights,
// zero weights left out.
//
// Memory: the caller's values (read in place, never converted), one block
// buffer, one pending digest per level, and along each worker's path
// through a subtree one finished left half per level. A weighted leaf
// also holds, while it runs, its block's pairs sorted and their summary
// matrix: under 100 bytes per pair (26 MB for a full block).
//
// Ctrl-C: every leaf and every merge polls the runtime's interrupt flag, and
// the module polls it every 10000 values inside a leaf; the first to see it
// raises "QUORIX:interrupt:Interrupted", TBB cancels the rest and rethrows on
// the calling thread. A build that threw is left unusable.
#pragma once

#include <tbb/task_arena.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "engine/block_tree.h"
#include "quorix/host_array.h"

namespace zotdigest::engine {

struct BuildOptions {
  double delta = 100.0;
  std::uint32_t seed = 0;
  // Worker threads at most; 0 means TBB's default (every core).
  unsigned threads = 0;
  // The block index of the first value appended. With 0 the result is the
  // digest of the values. With i * 2^K, and at most 2^K blocks appended, it
  // is node i of level K of the tree of any longer sequence whose blocks
  // from i * 2^K on are these: how a cluster builds its chunks' subtrees
  // and then merges them with mergeNodes in the same fixed tree.
  std::uint64_t firstBlock = 0;
  // A weighted build (engine/block_tree.h): values come with weights,
  // through appendWeighted only.
  bool weighted = false;
};

class ReproducibleBuild {
 public:
  // Loads the module; raises the module's "stats:tdigest:DeltaInvalidValue"
  // for a Delta that is not > 0.
  explicit ReproducibleBuild(const BuildOptions& options);
  ~ReproducibleBuild();
  ReproducibleBuild(const ReproducibleBuild&) = delete;
  ReproducibleBuild& operator=(const ReproducibleBuild&) = delete;

  // Appends the elements of an array in the module's element order (its
  // storage order, first dimension fastest). An empty array of any class
  // adds nothing; other arrays must be numeric and real, else
  // "QUORIX:class:RequireReal", as the module's constructor would say.
  void append(const quorix::HostArray& values);
  // Appends `count` elements of the numeric class `id` read from `values`.
  void append(const void* values, std::size_t count, quorix::ClassID id);
  // Appends `count` pairs: elements of the numeric class `id` read from
  // `values`, with their weights. Zero weights drop their values. Throws
  // InputError, before any work, when the weights appended so far would sum
  // to more than 2^64 - 1.
  // Both appends throw std::logic_error on a build of the other kind.
  void appendWeighted(const void* values, quorix::ClassID id, const std::uint64_t* weights,
                      std::size_t count);

  // Values (pairs, zero weights included) appended so far.
  std::uint64_t size() const noexcept { return values_; }

  // The digest of everything appended, as a scalar "TDigest" object. Call
  // once; the build is empty afterwards.
  quorix::HostArrayPtr finish();

 private:
  template <class Work>
  void run(Work&& work);
  void toBuffer(const std::byte* values, std::size_t count, quorix::ClassID id);
  void toWeightedBuffer(const std::byte* values, quorix::ClassID id, const std::uint64_t* weights,
                        std::size_t count);
  // Digests blocks [blocks_, blocks_ + count), the leaf of block k made by
  // leaf(k) on any worker, and pushes them.
  void appendWholeBlocks(const std::function<quorix::HostArrayPtr(std::uint64_t)>& leaf,
                         std::uint64_t count);
  quorix::HostArrayPtr bufferedLeaf();
  void push(quorix::HostArrayPtr node, unsigned level);

  BuildOptions options_;
  std::unique_ptr<tbb::task_arena> arena_;  // only when threads are limited
  quorix::HostArrayPtr empty_;              // the answer for no values
  std::vector<quorix::HostArrayPtr> pending_;
  std::uint64_t blocks_ = 0;  // blocks pushed into the counter
  std::uint64_t values_ = 0;
  std::vector<std::byte> buffer_;  // the partly filled block
  std::size_t buffered_ = 0;
  quorix::ClassID bufferClass_ = quorix::ClassID::Double;
  std::vector<std::uint64_t> bufferWeights_;  // weighted: the buffered pairs' weights
  std::uint64_t weightSum_ = 0;
};

// The digest of one array held in memory: a ReproducibleBuild with one
// append.
quorix::HostArrayPtr reproducibleDigest(const quorix::HostArray& values,
                                        const BuildOptions& options);

// The weighted digest of `count` pairs held in memory (values of the
// numeric class `id`); `options.weighted` is implied.
quorix::HostArrayPtr reproducibleDigest(const void* values, quorix::ClassID id,
                                        const std::uint64_t* weights, std::size_t count,
                                        BuildOptions options);

}  // namespace zotdigest::engine
