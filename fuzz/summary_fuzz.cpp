// libFuzzer target: decodes arbitrary bytes as a summary matrix (trusting
// all but the row count: rootless sizes, junk heights and subtree counts,
// unsorted or NaN means, wrapping counts) and runs every digest operation on
// the result. Besides staying memory-safe and finishing, it checks that
// queries raise only their documented errors, that a consistent decoded tree
// round-trips to the same bytes, and that a merge (a rebuild by insertion)
// leaves a consistent AVL tree of exactly size() nodes.
//
// Work per input is bounded (kMaxColumns centroids, kMaxAdds adds, merges of
// at most kMaxMergeList centroids): a digest whose counts wrap 4 x total and
// that holds more than 20 x delta centroids nests 64 compressions per add
// before it gives up, so a timeout still points at a loop that does not end.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/queries.h"
#include "core/tdigest.h"
#include "core/trimmed_mean.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/random_stream.h"
#include "summary/properties.h"
#include "summary/summary_matrix.h"
#include "summary_fuzz_input.h"

namespace zotdigest::fuzz {
namespace {

constexpr int kMaxAdds = 32;
constexpr std::uint64_t kMaxMergeList = 512;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "summary_fuzz: %s\n", what);
  std::abort();
}

void check(bool ok, const char* what) {
  if (!ok) fail(what);
}

// splitmix64: the values added are a function of the input alone.
class Values {
 public:
  explicit Values(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += UINT64_C(0x9E3779B97F4A7C15));
    z = (z ^ (z >> 30)) * UINT64_C(0xBF58476D1CE4E5B9);
    z = (z ^ (z >> 27)) * UINT64_C(0x94D049BB133111EB);
    return z ^ (z >> 31);
  }

 private:
  std::uint64_t state_;
};

double pickValue(Values& v, const std::vector<Centroid>& listed) {
  const std::uint64_t r = v.next();
  switch (r % 12) {
    case 0:
      return kNaN;
    case 1:
      return kInf;
    case 2:
      return -kInf;
    case 3:
      return -0.0;
    case 4:
      return (r & 256) != 0 ? 1e308 : -1e308;
    case 5:
      return std::bit_cast<double>(v.next());  // any pattern, NaN payloads included
    case 6:
    case 7:
      // An existing mean, to make ties and equal-mean runs.
      if (!listed.empty()) return listed[v.next() % listed.size()].mean;
      [[fallthrough]];
    default:
      return static_cast<double>(static_cast<std::int64_t>(v.next() % 2001) - 1000) * 0.125;
  }
}

std::uint64_t pickWeight(Values& v) {
  const std::uint64_t r = v.next();
  switch (r % 16) {
    case 0:
      return 0;
    case 1:
      return UINT64_C(0xFFFFFFFFFFFFFFFF);
    case 2:
      return v.next() >> (r % 64);
    case 3:
      return UINT64_C(1) << 62;
    default:
      return 1;
  }
}

// Node count and full consistency, without recursion: heights and subtree
// counts agree with the children and every node is AVL-balanced.
bool consistentAvl(const CentroidNode* root, std::uint64_t& nodes) {
  nodes = 0;
  if (root == nullptr) return true;
  std::vector<const CentroidNode*> order;  // parents before children
  order.push_back(root);
  for (std::size_t i = 0; i < order.size(); ++i) {
    const CentroidNode* n = order[i];
    for (const CentroidNode* child : {n->left, n->right}) {
      if (child == nullptr) continue;
      if (child->parent != n) return false;
      order.push_back(child);
    }
  }
  nodes = order.size();
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const CentroidNode* n = *it;
    const std::int64_t hl = n->left != nullptr ? n->left->height : -1;
    const std::int64_t hr = n->right != nullptr ? n->right->height : -1;
    const std::uint64_t tl = n->left != nullptr ? n->left->subtreeCount : 0;
    const std::uint64_t tr = n->right != nullptr ? n->right->subtreeCount : 0;
    if (n->height != std::max(hl, hr) + 1 || hr - hl > 1 || hl - hr > 1) return false;
    if (n->subtreeCount != n->count + tl + tr) return false;
  }
  return true;
}

bool hasZeroCount(const CentroidTree& tree) {
  std::vector<Centroid> listed;
  tree.listCentroids(listed);
  return std::any_of(listed.begin(), listed.end(), [](const Centroid& c) { return c.count == 0; });
}

std::vector<std::int64_t> elementsOf(const quorix::HostArray& m) {
  const std::int64_t* d = m.data<std::int64_t>();
  return std::vector<std::int64_t>(d, d + m.numel());
}

// A consistent tree with no zero count must survive encode and decode.
void checkRoundTrip(const CentroidTree& tree) {
  std::uint64_t nodes = 0;
  if (!consistentAvl(tree.root(), nodes) || nodes != tree.size() || hasZeroCount(tree)) return;
  const auto m = encodeSummary(tree);
  CentroidTree back;
  decodeSummary(back, m.get());
  // Same bytes again from a tree that is itself consistent and whole: the
  // heap-order slots fix every node's fields and the shape.
  std::uint64_t backNodes = 0;
  check(consistentAvl(back.root(), backNodes) && backNodes == tree.size() &&
            back.size() == tree.size(),
        "round trip changed a consistent tree");
  check(elementsOf(*encodeSummary(back)) == elementsOf(*m), "re-encoding changed the bytes");
}

template <class F>
void query(F&& f) {
  try {
    f();
  } catch (const quorix::MsgIDException& e) {
    const std::string id = e.identifier();
    if (id != "stats:tdigest:CdfNoData" && id != "stats:tdigest:TrimmedMeanNoData") {
      fail(("unexpected error " + id).c_str());
    }
  }
}

void runQueries(const TDigest& d) {
  for (const double x : {-kInf, -1e300, -3.0, -0.0, 0.5, 2.0, 17.25, 1e300, kInf, kNaN}) {
    query([&] { static_cast<void>(cdf(d, x)); });
  }
  for (const double q : {0.0, 1e-12, 0.1, 0.5, 0.9, 1.0 - 1e-12, 1.0, kNaN}) {
    query([&] { static_cast<void>(icdf(d, q)); });
  }
  for (const double p : {0.0, 0.01, 0.25, 0.4999999, kNaN}) {
    query([&] { static_cast<void>(trimmedMean(d, p)); });
  }
  quorix::HostArray* out[2] = {nullptr, nullptr};
  centroids(d, 2, out);
  const quorix::HostArrayPtr means(out[0]);
  const quorix::HostArrayPtr counts(out[1]);
  check(means->numel() == counts->numel(), "centroid listings differ in length");
  const auto m = encodeSummary(d.tree);
  check(m->rows() == 4, "encoding is not four rows");
}

quorix::RandomStream& stream() {
  static const std::unique_ptr<quorix::RandomStream> s =
      quorix::RandomStream::create("mrg32k3a", 1000000, 0);
  return *s;
}

TDigest makeDigest(double delta) {
  TDigest d;
  d.stream = &stream();
  try {
    setDelta(d, delta);
  } catch (const quorix::MsgIDException& e) {
    check(e.identifier() == "stats:tdigest:DeltaInvalidValue", "unexpected delta error");
    check(d.delta == 100.0, "refused delta was stored");
  }
  return d;
}

void run(const std::uint8_t* data, std::size_t size) {
  std::uint8_t controlBytes[kControlBytes] = {};
  std::copy_n(data, std::min(size, kControlBytes), controlBytes);
  const Control control = decodeControl(controlBytes);
  const std::uint8_t* body = data + std::min(size, kControlBytes);
  const std::size_t columns =
      std::min((size - std::min(size, kControlBytes)) / kColumnBytes, kMaxColumns);

  auto matrix = quorix::HostArray::createNumericMatrix(4, columns, quorix::ClassID::Int64);
  std::int64_t* words = matrix->data<std::int64_t>();
  for (std::size_t i = 0; i < 4 * columns; ++i) {
    words[i] = static_cast<std::int64_t>(getLittleEndian(body + 8 * i, 8));
  }

  stream().reset(control.seed);
  Values values(control.seed);
  const double delta = kDeltas[control.deltaIndex % kDeltas.size()];
  TDigest d = makeDigest(delta);
  setSummary(d, *matrix);
  checkRoundTrip(d.tree);

  std::vector<Centroid> listed;
  d.tree.listCentroids(listed);
  switch (control.totalMode % 4) {
    case kTotalFromTree: {
      std::uint64_t total = 0;
      for (const Centroid& c : listed) total += c.count;
      setNumDataPoints(d, total);
      break;
    }
    case kTotalGiven:
      setNumDataPoints(d, control.total);
      break;
    case kTotalZero:
      setNumDataPoints(d, 0);
      break;
    default:
      break;
  }
  check(getNumCentroids(d) == d.tree.size(), "NumCentroids is not the tree size");

  if ((control.steps & kQueryFirst) != 0) runQueries(d);

  if ((control.steps & kRefusedRows) != 0) {
    const auto before = elementsOf(*getSummary(d));
    const auto three = quorix::HostArray::createNumericMatrix(3, columns, quorix::ClassID::Int64);
    try {
      setSummary(d, *three);
      fail("a 3-row matrix was accepted");
    } catch (const quorix::MsgIDException& e) {
      check(e.identifier() == "stats:tdigest:DataMalformed", "unexpected decode error");
    }
    check(elementsOf(*getSummary(d)) == before, "a refused matrix changed the tree");
  }

  if ((control.steps & kAdd) != 0) {
    for (int i = 0; i < control.addCount % (kMaxAdds + 1); ++i) {
      const double x = pickValue(values, listed);
      d.add(x, pickWeight(values));
    }
  }
  if ((control.steps & kCompress) != 0) d.compress();
  if ((control.steps & kMergeSelf) != 0 && 2 * d.tree.size() <= kMaxMergeList) d.merge(d);

  if ((control.steps & kMergeMismatch) != 0) {
    TDigest other = makeDigest(d.delta == 3.0 ? 4.0 : 3.0);
    const auto before = elementsOf(*getSummary(d));
    try {
      d.merge(other);
      fail("digests of different delta were merged");
    } catch (const quorix::MsgIDException& e) {
      check(e.identifier() == "stats:tdigest:MergeDeltaMismatch", "unexpected merge error");
    }
    check(elementsOf(*getSummary(d)) == before, "a refused merge changed the tree");
  }

  if ((control.steps & kMergeFresh) != 0 && d.tree.size() <= kMaxMergeList) {
    TDigest fresh = makeDigest(delta);
    fresh.merge(d);
    std::uint64_t nodes = 0;
    check(consistentAvl(fresh.tree.root(), nodes), "merge left an inconsistent tree");
    check(nodes == fresh.tree.size(), "merge left a size that is not the node count");
    runQueries(fresh);
    if (d.tree.size() + fresh.tree.size() <= kMaxMergeList) {
      d.merge(fresh);
      check(consistentAvl(d.tree.root(), nodes), "merge left an inconsistent tree");
      check(nodes == d.tree.size(), "merge left a size that is not the node count");
    }
  }

  runQueries(d);
  if ((control.steps & kRoundTrip) != 0) {
    TDigest again = makeDigest(delta);
    setSummary(again, *getSummary(d));
    runQueries(again);
    checkRoundTrip(d.tree);
  }
}

}  // namespace
}  // namespace zotdigest::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zotdigest::fuzz::run(data, size);
  return 0;
}
