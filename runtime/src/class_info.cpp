// The base answers of ClassInfo's class-level queries: a plain class with no
// description, no custom save or load, not hidden, sealed, abstract,
// handle compatible or an enumeration, saved neither by properties nor in
// arrays of more than one object.
#include "quorix/object_system.h"

namespace quorix {

ClassInfo::ClassInfo() = default;
ClassInfo::~ClassInfo() = default;

void ClassInfo::updateInstance(void* /*instance*/) {}
bool ClassInfo::savesByProperties() const { return false; }
bool ClassInfo::hidden() const { return false; }
bool ClassInfo::sealed() const { return false; }
bool ClassInfo::abstract() const { return false; }
std::string ClassInfo::description() const { return {}; }
std::string ClassInfo::detailedDescription() const { return {}; }
int ClassInfo::classAccess() const { return kPublicAccess; }
bool ClassInfo::containsHandles() const { return false; }
bool ClassInfo::containsFunctions() const { return false; }
bool ClassInfo::allowsObjectArrays() const { return false; }
bool ClassInfo::handleCompatible() const { return false; }
bool ClassInfo::isEnumeration() const { return false; }
bool ClassInfo::hasCustomSave() const { return false; }
bool ClassInfo::hasCustomLoad() const { return false; }

}  // namespace quorix
