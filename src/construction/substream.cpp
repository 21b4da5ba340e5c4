#include "construction/substream.h"

namespace zotdigest {

namespace {

// Lives for the whole process and carries over from call to call, so two
// equal builds in a row start on different substreams.
std::atomic<std::uint64_t> substreamCounter{0};

std::unique_ptr<quorix::RandomStream> seededGenerator(quorix::RandomStream& seedStream) {
  double draw = 0.0;
  seedStream.wholeNumbers(&draw, 1, 0.0, 999999.0);
  // The draw is a whole number in [0, 999999]: the conversion is exact.
  const auto seed = static_cast<std::uint64_t>(draw);
  return quorix::RandomStream::create("mrg32k3a", kSubstreamCount, seed);
}

}  // namespace

std::uint64_t takeSubstreamIndex(std::atomic<std::uint64_t>& counter) noexcept {
  std::uint64_t full = kSubstreamCount;
  counter.compare_exchange_strong(full, 0);
  return counter.fetch_add(1) + 1;
}

std::uint64_t nextSubstreamIndex() noexcept { return takeSubstreamIndex(substreamCounter); }

quorix::RandomStream* moveToFreshSubstream(StreamSlots& slots) {
  quorix::RandomStream* const generator = slots.local();
  generator->selectSubstream(nextSubstreamIndex());
  return generator;
}

CallGenerator::CallGenerator(quorix::RandomStream& seedStream)
    : generator_(seededGenerator(seedStream)), slots_(generator_.get()) {}

}  // namespace zotdigest
