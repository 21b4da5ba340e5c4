// The "RandomStream" class of the object system, and the conversions of a
// stream to and from a host value.
//
// An instance is a heap-allocated std::shared_ptr<RandomStream>: the object
// shares ownership of its stream, so a stream handed out by toHostValue
// lives as long as the longer of the caller's pointer and the object. The
// process-wide default stream is handed over as a non-owning pointer.
#include "builtin_classes.h"
#include "quorix/host_array.h"
#include "quorix/messages.h"
#include "quorix/object_system.h"
#include "quorix/random_stream.h"

namespace quorix {

namespace {

constexpr const char* kClassName = "RandomStream";

using Holder = std::shared_ptr<RandomStream>;

class RandomStreamClass final : public ClassInfo {
 public:
  std::string name() const override { return kClassName; }

  void defineMembers(ClassDefinition& definition) override {
    definition.addProperty(std::make_unique<PropertyInfo>(
        "Seed", TypeRepository::lookup("double scalar"), kPublicAccess, kPublicAccess, 0u,
        "The seed that selected the stream.", [](void* instance) {
          const Holder& stream = *static_cast<Holder*>(instance);
          return HostArray::createDoubleScalar(static_cast<double>(stream->seed()));
        }));
  }

  void* createInstance() override {
    return new Holder(RandomStream::create("mrg32k3a", 1000000, 0));
  }

  void destroyInstance(void* instance) noexcept override { delete static_cast<Holder*>(instance); }

  // A stream's position is not a property: it is not saved.
  bool savesByProperties() const override { return false; }
  std::string description() const override { return "A stream of random numbers (mrg32k3a)."; }
};

}  // namespace

void detail::registerBuiltinClasses() { ObjectSystem::registerClass(new RandomStreamClass); }

RandomStream& RandomStream::fromHostValue(const HostArray& value) {
  if (value.classID() == ClassID::Object && value.objectClassName() == kClassName &&
      value.isScalar()) {
    const ObjectHandle& handle = value.object(0);
    if (handle && handle->className() == kClassName && handle->instance() != nullptr) {
      const Holder& stream = *static_cast<const Holder*>(handle->instance());
      if (stream) {
        return *stream;
      }
    }
  }
  raiseHostError(MessageID("QUORIX:random", "InvalidStream"));
}

std::unique_ptr<HostArray> RandomStream::toHostValue(std::shared_ptr<RandomStream> stream) {
  if (!stream) {
    raiseHostError(MessageID("QUORIX:random", "InvalidStream"));
  }
  // A fresh instance starts with a new seed-0 stream (no jumps, cheap);
  // replace it with the caller's.
  ObjectHandle handle = ObjectSystem::createInstance(kClassName);
  *static_cast<Holder*>(handle->instance()) = std::move(stream);
  return HostArray::createScalarObject(std::move(handle));
}

}  // namespace quorix
