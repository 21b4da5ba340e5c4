#include "engine/grouped_build.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <limits>
#include <string>

#include "engine/block_tree.h"
#include "engine/errors.h"
#include "engine/large_buffer.h"
#include "engine/worker_interrupts.h"
#include "quorix/interrupt.h"

namespace zotdigest::engine {
namespace {

using quorix::ClassID;
using quorix::HostArrayPtr;

// Small groups are handed out in batches of about this many values, a
// group counting kGroupCost values more for its digest's own cost (an
// empty digest, a stream, the constructor's set-up): large enough that a
// batch outweighs the scheduling, small enough for an even spread.
constexpr std::size_t kBatchValues = std::size_t{1} << 16;
constexpr std::size_t kGroupCost = 64;

constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();

// The values (and weights) sorted stably by group: group g's are slots
// starts[g] .. starts[g + 1]. The buffers are not initialised: the scatter
// writes every slot.
struct Partition {
  LargeBuffer values;
  LargeBuffer weights;
  std::vector<std::size_t> starts;
};

// What a chunk's counting pass found wrong.
struct ChunkCheck {
  std::size_t badCode = kNone;  // first position with a code >= groups
  std::uint64_t weight = 0;     // weights of the values kept
  bool overflow = false;
};

// Copies the kept values of input positions [lo, hi) (and their weights)
// to their slots; `next` holds each group's next slot for this chunk.
template <class Element>
void scatterChunk(const GroupedInput& in, std::size_t lo, std::size_t hi, std::uint64_t* next,
                  std::byte* values, std::uint64_t* weights) {
  const auto* from = static_cast<const Element*>(in.values);
  auto* to = reinterpret_cast<Element*>(values);
  const std::int64_t* codes = in.codes;
  const std::uint64_t* w = in.weights;
  if (w == nullptr) {
    for (std::size_t i = lo; i < hi; ++i) {
      if (codes[i] >= 0) {
        to[next[codes[i]]++] = from[i];
      }
    }
    return;
  }
  for (std::size_t i = lo; i < hi; ++i) {
    if (codes[i] >= 0 && w[i] != 0) {
      const std::uint64_t slot = next[codes[i]]++;
      to[slot] = from[i];
      weights[slot] = w[i];
    }
  }
}

using Scatter = void (*)(const GroupedInput&, std::size_t, std::size_t, std::uint64_t*, std::byte*,
                         std::uint64_t*);

// Elements are moved as unsigned integers of their width: the bits only.
Scatter scatterFor(std::size_t width) {
  switch (width) {
    case 1:
      return &scatterChunk<std::uint8_t>;
    case 2:
      return &scatterChunk<std::uint16_t>;
    case 4:
      return &scatterChunk<std::uint32_t>;
    default:
      return &scatterChunk<std::uint64_t>;
  }
}

class Partitioner {
 public:
  explicit Partitioner(const GroupedInput& in)
      : in_(in),
        width_(quorix::elementSize(in.id)),
        // Counts per (chunk, group) stay under a quarter of the values'
        // count; a few chunks per thread even out the scatter.
        chunks_(std::clamp<std::size_t>(
            in.count / (4 * std::max<std::size_t>(in.groups, 1)), 1,
            4 * static_cast<std::size_t>(tbb::this_task_arena::max_concurrency()))),
        counts_(chunks_ * in.groups) {}

  Partition run() {
    countChunks();
    Partition p;
    p.starts = offsets();
    const std::size_t kept = p.starts.back();
    p.values = LargeBuffer(kept * width_);
    if (in_.weights != nullptr) {
      p.weights = LargeBuffer(kept * sizeof(std::uint64_t));
    }
    scatter(p);
    return p;
  }

 private:
  std::size_t chunkStart(std::size_t c) const {
    // Even chunks: the first count % chunks ones take one value more.
    return c * (in_.count / chunks_) + std::min(c, in_.count % chunks_);
  }

  template <class Body>
  void eachChunk(Body&& body) {
    // One task per chunk: chunks are few and even.
    tbb::parallel_for(
        tbb::blocked_range<std::size_t>(0, chunks_, 1),
        [&](const tbb::blocked_range<std::size_t>& r) {
          for (std::size_t c = r.begin(); c != r.end(); ++c) {
            onWorker([] {
              quorix::checkInterrupt();
              return true;
            });
            body(c, chunkStart(c), chunkStart(c + 1));
          }
        },
        tbb::simple_partitioner());
  }

  void countChunks() {
    std::vector<ChunkCheck> checks(chunks_);
    eachChunk([&](std::size_t c, std::size_t lo, std::size_t hi) {
      std::uint64_t* mine = counts_.data() + c * in_.groups;
      const std::int64_t* codes = in_.codes;
      const std::uint64_t* weights = in_.weights;
      const auto groups = static_cast<std::uint64_t>(in_.groups);
      ChunkCheck& check = checks[c];
      for (std::size_t i = lo; i < hi; ++i) {
        const std::int64_t code = codes[i];
        if (code < 0) {
          continue;
        }
        if (static_cast<std::uint64_t>(code) >= groups) {
          check.badCode = i;
          return;
        }
        if (weights != nullptr) {
          if (weights[i] == 0) {
            continue;
          }
          check.overflow |= __builtin_add_overflow(check.weight, weights[i], &check.weight);
        }
        ++mine[code];
      }
    });
    std::uint64_t weight = 0;
    bool overflow = false;
    for (const ChunkCheck& check : checks) {
      if (check.badCode != kNone) {
        throw InputError("group code " + std::to_string(in_.codes[check.badCode]) +
                         " at position " + std::to_string(check.badCode) +
                         " is not below the number of groups (" + std::to_string(in_.groups) + ")");
      }
      overflow |= check.overflow || __builtin_add_overflow(weight, check.weight, &weight);
    }
    if (overflow) {
      throw InputError("the weights add up to more than 2^64 - 1");
    }
  }

  // Turns each (chunk, group) count into that chunk's first slot for the
  // group; returns the groups' starts.
  std::vector<std::size_t> offsets() {
    std::vector<std::size_t> starts(in_.groups + 1);
    std::size_t next = 0;
    for (std::size_t g = 0; g < in_.groups; ++g) {
      starts[g] = next;
      for (std::size_t c = 0; c < chunks_; ++c) {
        const std::uint64_t n = counts_[c * in_.groups + g];
        counts_[c * in_.groups + g] = next;
        next += n;
      }
    }
    starts[in_.groups] = next;
    return starts;
  }

  void scatter(Partition& p) {
    const Scatter copy = scatterFor(width_);
    auto* weights = reinterpret_cast<std::uint64_t*>(p.weights.data());
    eachChunk([&](std::size_t c, std::size_t lo, std::size_t hi) {
      copy(in_, lo, hi, counts_.data() + c * in_.groups, p.values.data(), weights);
    });
  }

  const GroupedInput& in_;
  std::size_t width_;
  std::size_t chunks_;
  std::vector<std::uint64_t> counts_;  // [chunk][group]
};

// A run of groups built by one task: one large group, or a batch of small
// ones.
struct Task {
  std::size_t first;
  std::size_t last;
};

std::vector<Task> tasksOf(const std::vector<std::size_t>& starts) {
  const std::size_t groups = starts.size() - 1;
  std::vector<std::size_t> large;
  std::vector<Task> batches;
  std::size_t begin = 0;
  std::size_t weight = 0;
  for (std::size_t g = 0; g < groups; ++g) {
    const std::size_t n = starts[g + 1] - starts[g];
    if (n > kBlockSize) {
      large.push_back(g);
      continue;
    }
    if (weight == 0) {
      begin = g;
    }
    weight += n + kGroupCost;
    if (weight >= kBatchValues) {
      batches.push_back({begin, g + 1});
      weight = 0;
    }
  }
  if (weight > 0) {
    batches.push_back({begin, groups});
  }
  // Largest first, so that the long builds start early. A batch may span a
  // large group: its loop skips large groups.
  std::stable_sort(large.begin(), large.end(), [&](std::size_t a, std::size_t b) {
    return starts[a + 1] - starts[a] > starts[b + 1] - starts[b];
  });
  std::vector<Task> tasks;
  tasks.reserve(large.size() + batches.size());
  for (const std::size_t g : large) {
    tasks.push_back({g, g + 1});
  }
  tasks.insert(tasks.end(), batches.begin(), batches.end());
  return tasks;
}

HostArrayPtr groupDigest(const Partition& p, std::size_t g, const GroupedInput& in,
                         const BuildOptions& options) {
  const std::size_t n = p.starts[g + 1] - p.starts[g];
  const std::byte* values = p.values.data() + p.starts[g] * quorix::elementSize(in.id);
  const std::uint64_t* weights =
      in.weights != nullptr ? reinterpret_cast<const std::uint64_t*>(p.weights.data()) + p.starts[g]
                            : nullptr;
  if (n == 0) {
    return emptyDigest(options.delta);
  }
  if (n <= kBlockSize) {
    // One block: the leaf is the digest (weights of 0 are already out).
    HostArrayPtr leaf =
        weights != nullptr
            ? digestWeightedBlock(values, in.id, weights, n, options.delta, options.seed, 0)
            : digestBlock(values, n, in.id, options.delta, options.seed, 0);
    releaseBuildStream(*leaf);
    return leaf;
  }
  // Several blocks: the parallel build, in the caller's arena.
  BuildOptions own = options;
  own.threads = 0;
  own.firstBlock = 0;
  own.weighted = weights != nullptr;
  ReproducibleBuild build(own);
  if (weights != nullptr) {
    build.appendWeighted(values, in.id, weights, n);
  } else {
    build.append(values, n, in.id);
  }
  return build.finish();
}

std::vector<HostArrayPtr> buildGroups(const GroupedInput& in, const BuildOptions& options) {
  const Partition p = Partitioner(in).run();
  const std::vector<Task> tasks = tasksOf(p.starts);
  std::vector<HostArrayPtr> digests(in.groups);
  // One task per entry: each is a large build or a batch of ~2^16 values.
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, tasks.size(), 1),
      [&](const tbb::blocked_range<std::size_t>& r) {
        for (std::size_t t = r.begin(); t != r.end(); ++t) {
          const Task task = tasks[t];
          const bool batch = task.last - task.first > 1 ||
                             p.starts[task.last] - p.starts[task.first] <= kBlockSize;
          for (std::size_t g = task.first; g < task.last; ++g) {
            if (batch && p.starts[g + 1] - p.starts[g] > kBlockSize) {
              continue;  // a task of its own
            }
            digests[g] = onWorker([&] { return groupDigest(p, g, in, options); });
          }
        }
      },
      tbb::simple_partitioner());
  return digests;
}

}  // namespace

std::vector<HostArrayPtr> groupedDigests(const GroupedInput& input, const BuildOptions& options) {
  // Refuses a bad Delta before any work (and loads the module).
  emptyDigest(options.delta);
  std::vector<HostArrayPtr> digests;
  interruptible([&] {
    if (options.threads > 0) {
      tbb::task_arena arena(static_cast<int>(options.threads));
      arena.execute([&] { digests = buildGroups(input, options); });
    } else {
      digests = buildGroups(input, options);
    }
  });
  return digests;
}

}  // namespace zotdigest::engine
