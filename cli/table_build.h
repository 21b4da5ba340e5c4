// Digests of the columns of CSV and TSV files: one digest per value column,
// or one per key of a key column (--by), optionally weighted by a column of
// counts (--weight).
//
// Each digest is the reproducible build (engine/reproducible_build.h) of its
// values in file order, the files one after the other: a key's digest is
// the digest of that key's values alone, whatever the other keys, the
// threads or the chunks the rows are read in. Keys are the cells' text;
// digests come out in the byte order of their keys.
//
// Cells of a value column that are empty, "NA", "NaN", "null" or otherwise
// read as NaN are skipped (they are no data), and so are rows whose key
// cell is one of those; both are counted in the closing line on standard
// error. Any other cell that is not a number, and any weight that is not a
// non-negative integer, is an InputError naming the file, line and column
// (the weight of a skipped value is not read).
//
// Memory: the read buffer, one chunk of parsed rows, and the builds (each
// holds its partly filled block and its pending tree nodes).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cli/byte_source.h"
#include "cli/csv_reader.h"
#include "cli/digest_ops.h"

namespace zotdigest::cli {

struct TableOptions {
  CsvDialect dialect;
  // Value columns by header name or 1-based number; several give one
  // digest each, labelled by column. Empty: the only column of the file,
  // or every column when `everyColumn`.
  std::vector<std::string> columns;
  bool everyColumn = false;
  std::string by;      // key column: one digest per key
  std::string weight;  // weight column: non-negative integer counts
  std::string label;   // label of a single digest
  bool quiet = false;  // no closing line
};

std::vector<Digest> buildTableDigests(std::vector<std::unique_ptr<ByteSource>> sources,
                                      const TableOptions& options, const BuildSettings& settings);

}  // namespace zotdigest::cli
