// Class "TDigest" in the object system.
#pragma once

#include <string>

#include "quorix/object_system.h"

namespace zotdigest {

inline constexpr const char* kClassName = "TDigest";

class TDigestClassInfo : public quorix::ClassInfo {
 public:
  ~TDigestClassInfo() override;
  std::string name() const override;
  void defineMembers(quorix::ClassDefinition& definition) override;
  void* createInstance() override;
  void destroyInstance(void* instance) noexcept override;
  bool savesByProperties() const override;
  bool allowsObjectArrays() const override;
};

// Registers the class with the global registry once per process (used by
// the module initialiser and by tests that link the implementation
// directly).
void registerTDigestClass();

}  // namespace zotdigest
