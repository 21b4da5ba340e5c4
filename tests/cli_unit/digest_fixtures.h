// Saved TDigest states made by hand (no module needed) and an independent
// little-endian writer of digest-file payload records, for the file-format
// tests.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "quorix/object_system.h"

namespace zotdigest::cli::testing {

// One slot of the summary matrix: mean, count, height, subtree weight.
struct Slot {
  double mean = 0.0;
  std::uint64_t count = 0;
  std::int64_t height = 0;
  std::uint64_t subtree = 0;
};

inline quorix::HostArrayPtr summaryMatrix(const std::vector<Slot>& slots) {
  auto m = quorix::HostArray::createNumericMatrix(4, slots.size(), quorix::ClassID::Int64);
  auto* d = m->data<std::int64_t>();
  for (std::size_t j = 0; j < slots.size(); ++j) {
    d[4 * j + 0] = slots[j].count == 0 ? 0 : std::bit_cast<std::int64_t>(slots[j].mean);
    d[4 * j + 1] = static_cast<std::int64_t>(slots[j].count);
    d[4 * j + 2] = slots[j].height;
    d[4 * j + 3] = static_cast<std::int64_t>(slots[j].subtree);
  }
  return m;
}

// A perfect tree of the given height: in-order means 1, 2, 3, ..., count
// of the centroid with mean k is k.
inline std::vector<Slot> perfectTree(int height) {
  const std::size_t n = (std::size_t{1} << (height + 1)) - 1;
  std::vector<Slot> slots(n);
  std::size_t next = 1;
  // In-order walk of heap positions without recursion.
  std::vector<std::size_t> stack;
  std::size_t j = 0;
  while (!stack.empty() || j < n) {
    while (j < n) {
      stack.push_back(j);
      j = 2 * j + 1;
    }
    j = stack.back();
    stack.pop_back();
    slots[j].mean = static_cast<double>(next);
    slots[j].count = next;
    ++next;
    j = 2 * j + 2;
  }
  for (std::size_t k = n; k-- > 0;) {
    const std::size_t l = 2 * k + 1;
    const std::size_t r = 2 * k + 2;
    slots[k].height = l < n ? slots[l].height + 1 : 0;
    slots[k].subtree = slots[k].count + (l < n ? slots[l].subtree + slots[r].subtree : 0);
  }
  return slots;
}

// Fills in-order means 1, 2, ... (count k for mean k), heights and subtree
// weights of the nodes present in a heap-ordered slot vector.
inline void numberTree(std::vector<Slot>& slots) {
  const std::size_t n = slots.size();
  const auto present = [&](std::size_t j) { return j < n && slots[j].count != 0; };
  std::vector<std::size_t> stack;
  std::size_t j = 0;
  std::uint64_t next = 1;
  while (!stack.empty() || present(j)) {
    while (present(j)) {
      stack.push_back(j);
      j = 2 * j + 1;
    }
    j = stack.back();
    stack.pop_back();
    slots[j].mean = static_cast<double>(next);
    slots[j].count = next++;
    j = 2 * j + 2;
  }
  for (std::size_t k = n; k-- > 0;) {
    if (!present(k)) {
      continue;
    }
    const std::size_t l = 2 * k + 1;
    const std::size_t r = 2 * k + 2;
    const std::int64_t hl = present(l) ? slots[l].height : -1;
    const std::int64_t hr = present(r) ? slots[r].height : -1;
    slots[k].height = std::max(hl, hr) + 1;
    slots[k].subtree =
        slots[k].count + (present(l) ? slots[l].subtree : 0) + (present(r) ? slots[r].subtree : 0);
  }
}

// The AVL tree of the given height with the fewest nodes: the left subtree
// one level taller than the right, all the way down.
inline std::vector<Slot> sparseTree(int height) {
  std::vector<Slot> slots((std::size_t{1} << (height + 1)) - 1);
  std::vector<std::pair<std::size_t, int>> todo = {{0, height}};
  while (!todo.empty()) {
    const auto [j, h] = todo.back();
    todo.pop_back();
    if (h < 0) {
      continue;
    }
    slots[j].count = 1;  // mark present; numbered below
    todo.push_back({2 * j + 1, h - 1});
    todo.push_back({2 * j + 2, h - 2});
  }
  numberTree(slots);
  return slots;
}

inline quorix::SavedObject savedDigest(const std::vector<Slot>& slots, double delta = 100.0,
                                       std::uint64_t dataPoints = 0) {
  std::uint64_t nodes = 0;
  std::uint64_t weight = 0;
  for (const Slot& s : slots) {
    nodes += s.count != 0 ? 1 : 0;
    weight += s.count;
  }
  quorix::SavedObject saved;
  saved.className = "TDigest";
  saved.properties.push_back({"AVLTreeSummary", summaryMatrix(slots)});
  saved.properties.push_back({"Delta", quorix::HostArray::createDoubleScalar(delta)});
  saved.properties.push_back({"NumCentroids", quorix::HostArray::createUInt64Scalar(nodes)});
  saved.properties.push_back(
      {"NumDataPoints", quorix::HostArray::createUInt64Scalar(dataPoints ? dataPoints : weight)});
  return saved;
}

// Writes payload records exactly as the format describes them, apart from
// the encoder under test.
class PayloadWriter {
 public:
  PayloadWriter& u8(std::uint8_t v) {
    bytes.push_back(static_cast<std::byte>(v));
    return *this;
  }
  PayloadWriter& le(std::uint64_t v, int width) {
    for (int i = 0; i < width; ++i) {
      u8(static_cast<std::uint8_t>(v >> (8 * i)));
    }
    return *this;
  }
  PayloadWriter& u16(std::uint16_t v) { return le(v, 2); }
  PayloadWriter& u64(std::uint64_t v) { return le(v, 8); }
  PayloadWriter& text(const std::string& s) {
    u16(static_cast<std::uint16_t>(s.size()));
    for (const char c : s) {
      u8(static_cast<std::uint8_t>(c));
    }
    return *this;
  }
  // One property: name, class number, dims, 8-byte elements.
  PayloadWriter& property(const std::string& name, std::uint8_t classId,
                          const std::vector<std::uint64_t>& dims,
                          const std::vector<std::uint64_t>& words) {
    text(name).u8(classId).u8(static_cast<std::uint8_t>(dims.size()));
    for (const std::uint64_t d : dims) {
      u64(d);
    }
    for (const std::uint64_t w : words) {
      u64(w);
    }
    return *this;
  }
  // A whole record of a saved object.
  PayloadWriter& record(const std::string& label, const quorix::SavedObject& saved) {
    text(label).text(saved.className).u16(static_cast<std::uint16_t>(saved.properties.size()));
    for (const quorix::SavedProperty& p : saved.properties) {
      const quorix::HostArray& a = *p.value;
      std::vector<std::uint64_t> dims(a.dims().begin(), a.dims().end());
      std::vector<std::uint64_t> words(a.numel());
      for (std::size_t i = 0; i < a.numel(); ++i) {
        words[i] = static_cast<const std::uint64_t*>(a.realData())[i];
      }
      property(p.name, static_cast<std::uint8_t>(a.classID()), dims, words);
    }
    return *this;
  }

  std::vector<std::byte> bytes;
};

}  // namespace zotdigest::cli::testing
