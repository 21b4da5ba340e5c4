// RandomStream over the mrg32k3a arithmetic.
//
// Draw order is part of the contract: results must be reproducible from a
// seed on any machine. Every operation that makes several draws loads the
// state once, steps a local copy and stores it back once; a single thread
// therefore sees exactly the published sequence, and concurrent users see
// some interleaving of whole loads and stores. The words are relaxed
// atomics: no ordering is promised between threads, only freedom from data
// races.
#include "quorix/random_stream.h"

#include <cmath>
#include <unordered_map>
#include <vector>

#include "mrg32k3a.h"
#include "quorix/messages.h"

namespace quorix {

namespace mrg = detail::mrg32k3a;

namespace {

constexpr std::uint64_t kMinStreams = 1000000;
constexpr std::uint64_t kSeedLimit = std::uint64_t{1} << 32;
// Largest n for which every whole number up to n is exact as a double.
constexpr double kMaxPermutationSize = 9007199254740992.0;  // 2^53

void validateSeed(std::uint64_t seed) {
  if (seed >= kSeedLimit) {
    raiseHostError(MessageID("QUORIX:random", "InvalidSeed"));
  }
}

// Written out word by word: a loop over atomics is not unrolled, and one
// draw is little more than these loads and stores.
mrg::State load(const std::array<std::atomic<std::uint64_t>, 6>& words) noexcept {
  constexpr auto relaxed = std::memory_order_relaxed;
  return mrg::State{words[0].load(relaxed), words[1].load(relaxed), words[2].load(relaxed),
                    words[3].load(relaxed), words[4].load(relaxed), words[5].load(relaxed)};
}

void store(std::array<std::atomic<std::uint64_t>, 6>& words, const mrg::State& s) noexcept {
  constexpr auto relaxed = std::memory_order_relaxed;
  words[0].store(s[0], relaxed);
  words[1].store(s[1], relaxed);
  words[2].store(s[2], relaxed);
  words[3].store(s[3], relaxed);
  words[4].store(s[4], relaxed);
  words[5].store(s[5], relaxed);
}

// The permutation's array P = 1, 2, ..., n, materialised only where a swap
// touched it. Used when k is small next to n, so that drawing a few values
// out of a huge range needs neither the memory nor the time for all n.
class SparsePermutation {
 public:
  double at(std::uint64_t i) const {
    const auto it = moved_.find(i);
    return it == moved_.end() ? static_cast<double>(i + 1) : it->second;
  }
  void swap(std::uint64_t i, std::uint64_t j) {
    const double vi = at(i);
    const double vj = at(j);
    moved_[i] = vj;
    moved_[j] = vi;
  }

 private:
  std::unordered_map<std::uint64_t, double> moved_;
};

}  // namespace

std::unique_ptr<RandomStream> RandomStream::create(std::string_view generator,
                                                   std::uint64_t numStreams, std::uint64_t seed) {
  if (generator != "mrg32k3a") {
    raiseHostError(MessageID("QUORIX:random", "UnknownGenerator", 1, {std::string(generator)}));
  }
  validateSeed(seed);
  if (numStreams < kMinStreams) {
    raiseHostError(MessageID("QUORIX:random", "InvalidStreamCount"));
  }
  return std::unique_ptr<RandomStream>(new RandomStream(numStreams, seed));
}

RandomStream& RandomStream::defaultStream() {
  // Never destroyed: front ends and module terminators may draw during exit.
  static RandomStream* const stream = create("mrg32k3a", kMinStreams, 0).release();
  return *stream;
}

RandomStream::RandomStream(std::uint64_t numStreams, std::uint64_t seed)
    : numStreams_(numStreams), seed_(seed) {
  const mrg::State start = mrg::streamStart(seed);
  store(streamStart_, start);
  store(state_, start);
}

RandomStream::~RandomStream() = default;

void RandomStream::setState(const std::array<std::uint64_t, 6>& s) noexcept { store(state_, s); }

std::array<std::uint64_t, 6> RandomStream::loadStreamStart() const noexcept {
  return load(streamStart_);
}

double RandomStream::uniform() noexcept {
  mrg::State s = load(state_);
  const double u = mrg::stepInline(s);
  store(state_, s);
  return u;
}

void RandomStream::uniform(double* out, std::size_t n) noexcept {
  if (n == 0) {
    return;
  }
  mrg::State s = load(state_);
  // Three steps per turn: the state's words then come back to the same
  // registers, and no moves shift them along.
  std::size_t i = 0;
  for (; i + 3 <= n; i += 3) {
    out[i] = mrg::stepInline(s);
    out[i + 1] = mrg::stepInline(s);
    out[i + 2] = mrg::stepInline(s);
  }
  for (; i < n; ++i) {
    out[i] = mrg::stepInline(s);
  }
  store(state_, s);
}

void RandomStream::wholeNumbers(double* out, std::size_t count, double lo, double hi) noexcept {
  if (count == 0) {
    return;
  }
  const double width = hi - lo + 1.0;
  mrg::State s = load(state_);
  for (std::size_t i = 0; i < count; ++i) {
    const double u = mrg::stepInline(s);
    out[i] = lo + std::floor(u * width);
  }
  store(state_, s);
}

void RandomStream::randomPermutation(double* out, std::size_t k, double n) {
  if (!(n >= 0.0) || !(n <= kMaxPermutationSize) || std::floor(n) != n ||
      static_cast<double>(k) > n) {
    raiseHostError(MessageID("QUORIX:random", "InvalidPermutation"));
  }
  const auto size = static_cast<std::uint64_t>(n);
  // i runs over 0 .. k-1, except that a full permutation skips the last
  // position, whose swap could only be with itself: n - 1 draws, not n.
  const std::uint64_t swaps = k < size ? k : (size == 0 ? 0 : size - 1);

  const auto pick = [n](double u, std::uint64_t i) {
    // j = i + floor(u * (n - i)); u < 1 keeps j below n.
    const double offset = std::floor(u * (n - static_cast<double>(i)));
    return i + static_cast<std::uint64_t>(offset);
  };

  mrg::State s = load(state_);
  // A dense P when k is a fair share of n; otherwise only touched entries.
  if (size <= 4 * static_cast<std::uint64_t>(k) + 64) {
    std::vector<double> p(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < p.size(); ++i) {
      p[i] = static_cast<double>(i + 1);
    }
    for (std::uint64_t i = 0; i < swaps; ++i) {
      const std::uint64_t j = pick(mrg::stepInline(s), i);
      std::swap(p[static_cast<std::size_t>(i)], p[static_cast<std::size_t>(j)]);
    }
    for (std::size_t i = 0; i < k; ++i) {
      out[i] = p[i];
    }
  } else {
    SparsePermutation p;
    for (std::uint64_t i = 0; i < swaps; ++i) {
      const std::uint64_t j = pick(mrg::stepInline(s), i);
      p.swap(i, j);
    }
    for (std::size_t i = 0; i < k; ++i) {
      out[i] = p.at(i);
    }
  }
  store(state_, s);
}

void RandomStream::selectSubstream(std::uint64_t k) noexcept {
  // k = 0 is taken as substream 1, the stream's start.
  setState(mrg::substreamStart(loadStreamStart(), k));
}

void RandomStream::reset(std::uint64_t seed) {
  validateSeed(seed);
  const mrg::State start = mrg::streamStart(seed);
  store(streamStart_, start);
  store(state_, start);
  seed_.store(seed, std::memory_order_relaxed);
}

}  // namespace quorix
