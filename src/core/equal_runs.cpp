// EqualRuns: slots chosen by a hash of the mean, one run each; a run that
// collides with another simply replaces it and is indexed again when next
// needed.
#include "core/equal_runs.h"

#include <algorithm>
#include <array>
#include <bit>
#include <limits>

#include "core/centroid_tree.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace zotdigest {

void EqualRun::resetNotes(double newDelta, double total) {
  delta = newDelta;
  base = total;
  recheckAt.assign(nodes.size(), 0.0f);
  listedCount = 0;
}

void EqualRun::unlist() noexcept {
  for (std::size_t k = 0; k < listedCount; ++k) recheckAt[listed[k]] = 0.0f;
  listedCount = 0;
}

std::size_t EqualRun::listOpen(float sinceBase) noexcept {
  const float* notes = recheckAt.data();
  std::uint32_t* out = scratch.data();
  const std::size_t n = recheckAt.size();
  std::size_t open = 0;
  std::size_t i = 0;
#if defined(__SSE2__)
  // Four notes per comparison, eight per turn; the open lanes' indices are
  // packed to the front by a table and stored four at a time (scratch has
  // room past n).
  struct Lanes {
    alignas(16) std::int32_t lane[4];
    std::uint32_t count;
  };
  static constexpr auto kPacked = [] {
    std::array<Lanes, 16> t{};
    for (std::uint32_t mask = 0; mask < 16; ++mask) {
      std::uint32_t k = 0;
      for (std::int32_t bit = 0; bit < 4; ++bit) {
        if ((mask >> bit) & 1u) t[mask].lane[k++] = bit;
      }
      t[mask].count = k;
    }
    return t;
  }();
  const __m128 limit = _mm_set1_ps(sinceBase);
  const __m128i four = _mm_set1_epi32(4);
  __m128i first = _mm_setzero_si128();  // i in every lane
  for (; i + 8 <= n; i += 8) {
    const int maskA = _mm_movemask_ps(_mm_cmple_ps(_mm_loadu_ps(notes + i), limit));
    const int maskB = _mm_movemask_ps(_mm_cmple_ps(_mm_loadu_ps(notes + i + 4), limit));
    const Lanes& a = kPacked[static_cast<std::size_t>(maskA)];
    const Lanes& b = kPacked[static_cast<std::size_t>(maskB)];
    const __m128i laneA = _mm_load_si128(reinterpret_cast<const __m128i*>(a.lane));
    const __m128i laneB = _mm_load_si128(reinterpret_cast<const __m128i*>(b.lane));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + open), _mm_add_epi32(first, laneA));
    open += a.count;
    first = _mm_add_epi32(first, four);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + open), _mm_add_epi32(first, laneB));
    open += b.count;
    first = _mm_add_epi32(first, four);
  }
#endif
  for (; i < n; ++i) {
    out[open] = static_cast<std::uint32_t>(i);
    open += notes[i] <= sinceBase ? 1 : 0;
  }
  return open;
}

EqualRuns::~EqualRuns() = default;

std::size_t EqualRuns::pairOf(double mean) noexcept {
  // + 0.0 turns -0.0 into 0.0: the two are the same mean here.
  const auto bits = std::bit_cast<std::uint64_t>(mean + 0.0);
  return static_cast<std::size_t>((bits * UINT64_C(0x9E3779B97F4A7C15)) >> 58) * 2;
}

EqualRun* EqualRuns::find(double mean) noexcept {
  if (live_ == 0) return nullptr;
  const std::size_t pair = pairOf(mean);
  for (std::size_t k = pair; k < pair + 2; ++k) {
    EqualRun* run = (*slots_)[k].get();
    if (run != nullptr && run->live && run->mean == mean) {
      run->lastUse = ++uses_;
      return run;
    }
  }
  return nullptr;
}

EqualRun& EqualRuns::index(CentroidNode* first, double mean) {
  if (!slots_) slots_ = std::make_unique<std::array<std::unique_ptr<EqualRun>, kSlots>>();
  // The slot of this mean if it has one, else an empty one, else the one
  // used longer ago.
  const std::size_t pair = pairOf(mean);
  std::unique_ptr<EqualRun>* slot = nullptr;
  for (std::size_t k = pair; k < pair + 2 && slot == nullptr; ++k) {
    EqualRun* run = (*slots_)[k].get();
    if (run != nullptr && run->live && run->mean == mean) slot = &(*slots_)[k];
  }
  for (std::size_t k = pair; k < pair + 2 && slot == nullptr; ++k) {
    EqualRun* run = (*slots_)[k].get();
    if (run == nullptr || !run->live) slot = &(*slots_)[k];
  }
  if (slot == nullptr) {
    slot = &(*slots_)[(*slots_)[pair]->lastUse <= (*slots_)[pair + 1]->lastUse ? pair : pair + 1];
  }
  if (!*slot) *slot = std::make_unique<EqualRun>();
  EqualRun& run = **slot;
  if (run.live) {
    run.live = false;
    --live_;
  }
  run.nodes.clear();
  run.count.clear();
  run.before.clear();
  run.blockBefore.clear();
  double head = 0.0;
  double blockHead = 0.0;
  for (CentroidNode* node = first; node != nullptr && node->mean == mean; node = node->following) {
    if (run.nodes.size() % EqualRun::kBlock == 0) {
      blockHead = head;
      run.blockBefore.push_back(head);
    }
    const auto count = static_cast<double>(node->count);
    run.nodes.push_back(node);
    run.count.push_back(count);
    run.before.push_back(head - blockHead);
    head += count;
  }
  run.mean = mean;
  run.growing = -1;
  run.lastUse = ++uses_;
  run.scratch.resize(run.nodes.size() + 4);
  run.listed.resize(run.nodes.size());
  run.draws.resize(run.nodes.size());
  // No delta compares equal to NaN: the first add sets the notes up.
  run.resetNotes(std::numeric_limits<double>::quiet_NaN(), 0.0);
  run.live = true;
  ++live_;
  return run;
}

void EqualRuns::applyGrowth(const CentroidNode* node, double m, double grownMean,
                            std::uint64_t w) noexcept {
  EqualRun* run = find(m);
  if (run != nullptr) {
    const std::ptrdiff_t j = run->growing;
    run->growing = -1;
    if (j >= 0 && run->nodes[static_cast<std::size_t>(j)] == node && grownMean == m) {
      // The announced growth, in place: later head sums move by w, and the
      // grown centroid must be tested again.
      const auto k = static_cast<std::size_t>(j);
      const auto weight = static_cast<double>(w);
      run->count[k] += weight;
      const std::size_t block = k / EqualRun::kBlock;
      const std::size_t blockEnd = std::min((block + 1) * EqualRun::kBlock, run->before.size());
      for (std::size_t i = k + 1; i < blockEnd; ++i) run->before[i] += weight;
      for (std::size_t b = block + 1; b < run->blockBefore.size(); ++b) {
        run->blockBefore[b] += weight;
      }
      run->recheckAt[k] = 0.0f;
    } else {
      run->live = false;
      --live_;
    }
  }
  if (!(grownMean == m)) forget(grownMean);
}

void EqualRuns::drop(double mean) noexcept {
  EqualRun* run = find(mean);
  if (run == nullptr) return;
  run->live = false;
  --live_;
}

void EqualRuns::forgetAll() noexcept {
  if (live_ == 0) return;
  for (std::unique_ptr<EqualRun>& run : *slots_) {
    if (run) run->live = false;
  }
  live_ = 0;
}

}  // namespace zotdigest
