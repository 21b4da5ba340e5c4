// The class registry and objects of the test classes "Counter" and "Plain":
// registration, instance lifetime, construction, properties at both access
// levels, and save and restore.
#include "quorix/object_system.h"

#include <gtest/gtest.h>

#include <string>

#include "support/counter_fixture.h"
#include "support/raised_identifier.h"

namespace quorix {
namespace {

using test::CounterInstance;
using test::counterStats;
using test::kCounterClass;
using test::kPlainClass;
using test::raisedIdentifier;

using ObjectSystemTest = test::CounterTest;

// A class that notices its own destruction.
struct Refused final : ClassInfo {
  explicit Refused(bool* destroyed) : destroyed_(destroyed) {}
  ~Refused() override { *destroyed_ = true; }
  std::string name() const override { return kCounterClass; }
  void defineMembers(ClassDefinition&) override {}
  void* createInstance() override { return nullptr; }
  void destroyInstance(void*) noexcept override {}
  bool* destroyed_;
};

TEST_F(ObjectSystemTest, registration_refuses_duplicates_and_members_are_defined_once) {
  bool destroyed = false;
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::registerClass(new Refused(&destroyed)); }),
            "QUORIX:class:DuplicateClass");
  EXPECT_TRUE(destroyed) << "a refused class is released";
  EXPECT_EQ(&ObjectSystem::classDefinition(kCounterClass),
            &ObjectSystem::classDefinition(kCounterClass));
  EXPECT_EQ(counterStats().defined.load(), 1);
  EXPECT_EQ(raisedIdentifier([] { ObjectSystem::construct("NoSuchClass", 0, nullptr); }),
            "QUORIX:class:UnknownClass");
}

TEST_F(ObjectSystemTest, object_arrays_hold_one_instance_per_element_until_the_last_handle_goes) {
  const int createdBefore = counterStats().created.load();
  const int destroyedBefore = counterStats().destroyed.load();
  auto array = ObjectSystem::createObjectArray(kCounterClass, {2, 3});
  auto copy = array->clone();  // the handles, not the objects
  ObjectHandle held = array->object(5);
  EXPECT_EQ(copy->object(5), held);
  EXPECT_NE(array->object(0)->instance(), held->instance());
  EXPECT_EQ(counterStats().created.load(), createdBefore + 6);
  const auto plain = ObjectSystem::createObjectArray(kPlainClass, {1, 1});
  EXPECT_EQ(raisedIdentifier([&] { array->setObject(0, plain->object(0)); }),
            "QUORIX:array:MixedClasses");
  array.reset();
  copy.reset();
  EXPECT_EQ(counterStats().destroyed.load(), destroyedBefore + 5);
  held.reset();
  EXPECT_EQ(counterStats().destroyed.load(), destroyedBefore + 6);

  EXPECT_EQ(raisedIdentifier([] {
              ObjectSystem::createObjectArray(kPlainClass, {2, 1});
            }),
            "QUORIX:class:NoObjectArrays");
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::scalarInstance(*plain, kCounterClass); }),
            "QUORIX:class:RequireScalarObject");
}

TEST_F(ObjectSystemTest, properties_keep_their_access_levels_through_save_and_restore) {
  const auto five = HostArray::createDoubleScalar(5.0);
  const HostArray* in[] = {five.get(), five.get()};
  const auto object = ObjectSystem::construct(kCounterClass, 2, in);
  EXPECT_TRUE(counterOf(*object).constructed);
  EXPECT_EQ(counterOf(*object).lastNIn, 2) << "the constructor sees only the user's inputs";
  EXPECT_EQ(ObjectSystem::getProperty(*object, "Value")->elementAsDouble(0), 5.0);
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::getProperty(*object, "Secret"); }),
            "QUORIX:class:AccessDenied");
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::setProperty(*object, "Secret", *five); }),
            "QUORIX:class:AccessDenied");
  ObjectSystem::setProperty(*object, "Secret", *five, kRestrictedAccess);
  EXPECT_EQ(counterOf(*object).secret, 5.0);
  EXPECT_EQ(raisedIdentifier(
                [&] { ObjectSystem::setProperty(*object, "Steps", *five, kRestrictedAccess); }),
            "QUORIX:class:ReadOnly");

  counterOf(*object).steps = 9;
  const SavedObject saved = ObjectSystem::save(*object);
  EXPECT_EQ(saved.properties.at(1).value->data<std::uint64_t>()[0], 9u);
  const auto restored = ObjectSystem::restore(saved);
  const CounterInstance& copy = counterOf(*restored);
  EXPECT_EQ(copy.secret, 5.0);
  EXPECT_EQ(copy.steps, 0u) << "a property without setter is not restored";
  EXPECT_FALSE(copy.constructed) << "restore does not run the constructor";
  const auto plain = ObjectSystem::construct(kPlainClass, 0, nullptr);  // no constructor
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::save(*plain); }), "QUORIX:class:NotSavable");
}

}  // namespace
}  // namespace quorix
