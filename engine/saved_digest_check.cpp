// The summary matrix is the tree in heap order: slot j's children are
// slots 2j + 1 and 2j + 2, rows are (mean bits, count, height, subtree
// weight), and a slot with count 0 is empty. Children have larger slot
// numbers than their parent, so one pass from the last slot to the first
// sees every child before its parent and can check each node against its
// children's stored values, which are already known to be right; no
// recursion and no memory beyond one small stack for the in-order walk.
#include "engine/saved_digest_check.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace zotdigest::engine {
namespace {

constexpr std::string_view kSummary = "AVLTreeSummary";
constexpr std::string_view kDelta = "Delta";
constexpr std::string_view kNumCentroids = "NumCentroids";
constexpr std::string_view kNumDataPoints = "NumDataPoints";

// Read-only view of the 4 x C int64 summary matrix.
class SummaryView {
 public:
  SummaryView(const std::int64_t* data, std::size_t columns) : data_(data), columns_(columns) {}

  std::size_t columns() const noexcept { return columns_; }
  bool hasNode(std::size_t j) const noexcept { return j < columns_ && count(j) != 0; }
  std::int64_t raw(std::size_t j, std::size_t row) const noexcept { return data_[4 * j + row]; }
  std::uint64_t count(std::size_t j) const noexcept {
    return static_cast<std::uint64_t>(raw(j, 1));
  }
  std::int64_t height(std::size_t j) const noexcept { return raw(j, 2); }
  std::uint64_t subtree(std::size_t j) const noexcept {
    return static_cast<std::uint64_t>(raw(j, 3));
  }
  double mean(std::size_t j) const noexcept { return std::bit_cast<double>(raw(j, 0)); }
  // Height of the node in slot j, -1 for an empty or missing slot.
  std::int64_t heightOrNone(std::size_t j) const noexcept { return hasNode(j) ? height(j) : -1; }
  std::uint64_t subtreeOrZero(std::size_t j) const noexcept { return hasNode(j) ? subtree(j) : 0; }

 private:
  const std::int64_t* data_;
  std::size_t columns_;
};

std::string slotText(std::size_t j) { return "slot " + std::to_string(j); }

// Checks every slot against its children; counts the nodes.
std::string checkSlots(const SummaryView& tree, std::uint64_t& nodes) {
  nodes = 0;
  for (std::size_t j = tree.columns(); j-- > 0;) {
    const std::size_t left = 2 * j + 1;
    const std::size_t right = 2 * j + 2;
    if (tree.count(j) == 0) {
      if (tree.raw(j, 0) != 0 || tree.raw(j, 2) != 0 || tree.raw(j, 3) != 0) {
        return "the empty " + slotText(j) + " of the summary holds non-zero values";
      }
      if (tree.hasNode(left) || tree.hasNode(right)) {
        return "the summary has a centroid below the empty " + slotText(j);
      }
      continue;
    }
    ++nodes;
    const std::int64_t hl = tree.heightOrNone(left);
    const std::int64_t hr = tree.heightOrNone(right);
    if (tree.height(j) != std::max(hl, hr) + 1) {
      return "the height stored in " + slotText(j) + " of the summary is wrong";
    }
    if (hl - hr > 1 || hr - hl > 1) {
      return "the summary tree is not balanced at " + slotText(j);
    }
    std::uint64_t weight = tree.count(j);
    const std::uint64_t sl = tree.subtreeOrZero(left);
    const std::uint64_t sr = tree.subtreeOrZero(right);
    if (weight + sl < weight || weight + sl + sr < weight + sl) {
      return "the subtree weight below " + slotText(j) + " of the summary overflows";
    }
    weight = weight + sl + sr;
    if (tree.subtree(j) != weight) {
      return "the subtree weight stored in " + slotText(j) + " of the summary is wrong";
    }
  }
  return {};
}

// In-order walk: the means must not decrease.
std::string checkOrder(const SummaryView& tree) {
  std::vector<std::size_t> stack;
  std::size_t j = 0;
  bool havePrevious = false;
  double previous = 0.0;
  while (!stack.empty() || tree.hasNode(j)) {
    while (tree.hasNode(j)) {
      stack.push_back(j);
      j = 2 * j + 1;
    }
    j = stack.back();
    stack.pop_back();
    const double mean = tree.mean(j);
    if (havePrevious && previous > mean) {
      return "the centroid means in the summary are not in ascending order";
    }
    if (!std::isnan(mean)) {
      havePrevious = true;
      previous = mean;
    }
    j = 2 * j + 2;
  }
  return {};
}

std::string checkTree(const quorix::HostArray& summary, std::uint64_t numCentroids) {
  if (summary.classID() != quorix::ClassID::Int64 || summary.isComplex() ||
      summary.dims().size() != 2 || summary.rows() != 4) {
    return "property AVLTreeSummary is not a real int64 matrix with 4 rows";
  }
  const std::size_t columns = summary.columns();
  if (columns == 0) {
    return numCentroids == 0 ? std::string()
                             : "NumCentroids does not match the summary, which is empty";
  }
  // A root of height h has 2^(h+1) - 1 slots.
  if (!std::has_single_bit(columns + 1)) {
    return "the summary has " + std::to_string(columns) +
           " slots, which is not a whole number of tree levels";
  }
  const SummaryView tree(summary.data<std::int64_t>(), columns);
  if (!tree.hasNode(0)) {
    return "the summary has no root centroid";
  }
  std::uint64_t nodes = 0;
  if (std::string why = checkSlots(tree, nodes); !why.empty()) {
    return why;
  }
  const auto levels = static_cast<std::int64_t>(std::bit_width(columns + 1) - 1);
  if (tree.height(0) != levels - 1) {
    return "the summary's root height does not match its number of slots";
  }
  if (nodes != numCentroids) {
    return "NumCentroids is " + std::to_string(numCentroids) + " but the summary holds " +
           std::to_string(nodes) + " centroids";
  }
  return checkOrder(tree);
}

bool isRealScalar(const quorix::HostArray& a, quorix::ClassID id) {
  return a.classID() == id && !a.isComplex() && a.isScalar();
}

}  // namespace

std::string checkSavedDigest(const quorix::SavedObject& saved) {
  if (saved.className != kDigestClass) {
    return "the stored object has class '" + saved.className + "', not 'TDigest'";
  }
  const quorix::HostArray* summary = nullptr;
  const quorix::HostArray* delta = nullptr;
  const quorix::HostArray* numCentroids = nullptr;
  const quorix::HostArray* numDataPoints = nullptr;
  for (const quorix::SavedProperty& p : saved.properties) {
    const quorix::HostArray** slot = p.name == kSummary         ? &summary
                                     : p.name == kDelta         ? &delta
                                     : p.name == kNumCentroids  ? &numCentroids
                                     : p.name == kNumDataPoints ? &numDataPoints
                                                                : nullptr;
    if (slot == nullptr) {
      return "the stored TDigest has an unknown property '" + p.name + "'";
    }
    if (*slot != nullptr) {
      return "the stored TDigest has property '" + p.name + "' twice";
    }
    if (!p.value) {
      return "the stored TDigest has no value for property '" + p.name + "'";
    }
    *slot = p.value.get();
  }
  if (!summary || !delta || !numCentroids || !numDataPoints) {
    return "the stored TDigest lacks one of AVLTreeSummary, Delta, NumCentroids, NumDataPoints";
  }
  if (!isRealScalar(*delta, quorix::ClassID::Double)) {
    return "property Delta is not a real double scalar";
  }
  if (!(*delta->data<double>() > 0.0)) {
    return "property Delta is not greater than 0";
  }
  if (!isRealScalar(*numCentroids, quorix::ClassID::UInt64) ||
      !isRealScalar(*numDataPoints, quorix::ClassID::UInt64)) {
    return "properties NumCentroids and NumDataPoints must be real uint64 scalars";
  }
  return checkTree(*summary, *numCentroids->data<std::uint64_t>());
}

}  // namespace zotdigest::engine
