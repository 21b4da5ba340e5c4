// Pictures of digests from the command line.
//
// In the terminal: a histogram of Unicode bars, one row per bin of equal
// width over the digest's range; a bin's share is the difference of the
// module's cdf at its edges. Colour only when standard output is a
// terminal (and NO_COLOR is unset).
//
// As PNG: the Python package draws them (TDigest.plot, with matplotlib),
// so the tool and Python show the same pictures from one implementation:
// the digests go to a temporary digest file that Debian's python3 reads
// with the same C++ reader.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "quorix/host_array.h"

namespace zotdigest::cli {

struct HistogramStyle {
  std::size_t columns = 80;  // the width of a line, in terminal cells
  std::size_t rows = 20;     // bins
  bool colour = false;
};

// The style for standard output: the terminal's width (else $COLUMNS, else
// 80), colour when it is a terminal and NO_COLOR is unset.
HistogramStyle terminalStyle();

// Prints the histogram of one digest under a title line. An empty digest
// prints "(no data)". Module errors leave as quorix::MsgIDException.
void printHistogram(std::ostream& out, const std::string& title, const quorix::HostArray& digest,
                    const HistogramStyle& style);

// Draws the digests of `digestFile` (labels as the legend) as a PNG of the
// kind "cdf", "density" or "quantile" at `pngPath`, replaced atomically.
// Throws OutputError when Python or matplotlib is missing or the drawing
// fails (Python's message is on standard error).
void drawPng(const std::string& digestFile, const std::string& pngPath, const std::string& kind,
             const std::string& title);

}  // namespace zotdigest::cli
