#include "host_module.h"

namespace zotdigest::python {

quorix::Module& zotdigestModule() {
  // The module's symbols are formed from its library's base name
  // (QXInitialize_libzotdigest), so it is loaded under that name; the
  // runtime finds it as libzotdigest.so.
  static quorix::Module& module = quorix::Module::load("libzotdigest");
  return module;
}

}  // namespace zotdigest::python
