// The extension zotdigest._core: wires each concept's bindings, nothing else.
#include <pybind11/pybind11.h>

#include "conversion.h"
#include "digest_files.h"
#include "errors.h"
#include "group_queries.h"
#include "grouped_build.h"
#include "random_stream.h"
#include "reproducible_build.h"
#include "routines.h"
#include "tdigest.h"
#include "yardstick.h"

PYBIND11_MODULE(_core, m) {
  namespace zp = zotdigest::python;
  m.doc() = "Bindings of the zotdigest module; use the package zotdigest.";
  zp::register_errors(m);
  zp::register_conversion(m);
  zp::register_random_stream(m);
  zp::register_tdigest(m);
  zp::register_routines(m);
  zp::register_group_queries(m);
  zp::register_reproducible_build(m);
  zp::register_grouped_build(m);
  zp::register_digest_files(m);
  zp::register_yardstick(m);
}
