// HostObject: what a Python TDigest holds.
//
// A Python wrapper shares ownership of one object of the runtime's object
// system; several wrappers may share one object (an object array handed back
// by a routine and the same objects passed in again). The object lives as
// long as the last handle, Python's or the runtime's.
#pragma once

#include <memory>
#include <utility>

#include "quorix/host_array.h"
#include "quorix/random_stream.h"

namespace zotdigest::python {

// The module's class that the front end wraps. Objects of other classes are
// not handed to Python.
inline constexpr const char* kWrappedClass = "TDigest";

struct HostObject {
  explicit HostObject(quorix::ObjectHandle object,
                      std::shared_ptr<quorix::RandomStream> stream = nullptr)
      : handle(std::move(object)),
        array(quorix::HostArray::createScalarObject(handle)),
        lastStream(std::move(stream)) {}

  quorix::ObjectHandle handle;
  // A scalar object array sharing the handle, the form in which the runtime
  // takes objects. Made once: every call passes it. The runtime only reads
  // its inputs, so wrappers (and threads) may share it.
  std::shared_ptr<const quorix::HostArray> array;
  // A digest borrows the stream it was last given and may keep pointing at
  // it after the call; holding the stream here keeps that pointer valid for
  // as long as this wrapper lives.
  std::shared_ptr<quorix::RandomStream> lastStream;
};

}  // namespace zotdigest::python
