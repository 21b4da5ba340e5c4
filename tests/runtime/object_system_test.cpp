#include "quorix/object_system.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "support/counter_class.h"
#include "support/raised_identifier.h"

namespace quorix {
namespace {

using test::CounterInstance;
using test::counterStats;
using test::kCounterClass;
using test::kPlainClass;
using test::raisedIdentifier;

class ObjectSystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::registerCounterClass();
    test::registerPlainClass();
  }
  static CounterInstance& counterOf(const HostArray& object) {
    return ObjectSystem::scalarInstanceAs<CounterInstance>(object, kCounterClass);
  }
};

// --- registration ------------------------------------------------------------

// A class whose only purpose is to notice its own destruction.
class Doomed final : public ClassInfo {
 public:
  Doomed(std::string name, bool* destroyed) : name_(std::move(name)), destroyed_(destroyed) {}
  ~Doomed() override { *destroyed_ = true; }
  std::string name() const override { return name_; }
  void defineMembers(ClassDefinition&) override {}
  void* createInstance() override { return nullptr; }
  void destroyInstance(void*) noexcept override {}

 private:
  std::string name_;
  bool* destroyed_;
};

TEST_F(ObjectSystemTest, the_runtime_registers_its_own_classes_first) {
  EXPECT_TRUE(ObjectSystem::isRegistered("RandomStream"));
  EXPECT_FALSE(ObjectSystem::isRegistered("NoSuchClass"));
}

TEST_F(ObjectSystemTest, a_second_class_of_a_registered_name_is_refused_and_released) {
  bool destroyed = false;
  EXPECT_EQ(
      raisedIdentifier([&] { ObjectSystem::registerClass(new Doomed(kCounterClass, &destroyed)); }),
      "QUORIX:class:DuplicateClass");
  EXPECT_TRUE(destroyed);
  // The original class is untouched.
  EXPECT_EQ(ObjectSystem::classDefinition(kCounterClass).properties().size(), 3u);
}

TEST_F(ObjectSystemTest, a_null_class_is_ignored) {
  EXPECT_NO_THROW(ObjectSystem::registerClass(nullptr));
}

TEST_F(ObjectSystemTest, unknown_classes_are_reported) {
  EXPECT_EQ(raisedIdentifier([] { ObjectSystem::createInstance("NoSuchClass"); }),
            "QUORIX:class:UnknownClass");
  EXPECT_EQ(raisedIdentifier([] { ObjectSystem::classDefinition("NoSuchClass"); }),
            "QUORIX:class:UnknownClass");
  EXPECT_EQ(raisedIdentifier([] { ObjectSystem::construct("NoSuchClass", 0, nullptr); }),
            "QUORIX:class:UnknownClass");
}

// A class that takes its time defining its members and counts how often it
// is asked to.
class SlowToDefine final : public ClassInfo {
 public:
  explicit SlowToDefine(std::string name) : name_(std::move(name)) {}
  int calls() const { return calls_.load(); }
  std::string name() const override { return name_; }
  void defineMembers(ClassDefinition& d) override {
    ++calls_;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    d.addProperty(
        std::make_unique<PropertyInfo>("X", TypeRepository::lookup("double scalar"), 0, 0, 0u, "",
                                       [](void*) { return HostArray::createDoubleScalar(0.0); }));
  }
  void* createInstance() override { return nullptr; }
  void destroyInstance(void*) noexcept override {}

 private:
  std::string name_;
  std::atomic<int> calls_{0};
};

TEST(ObjectSystemLazyDefinition, members_are_defined_once_on_first_need_even_when_threads_race) {
  // A class of its own per run: registration is for the life of the process.
  static int run = 0;
  const std::string name = "SlowToDefine" + std::to_string(run++);
  auto* const info = new SlowToDefine(name);
  ObjectSystem::registerClass(info);  // owned by the registry from here on, never freed
  EXPECT_EQ(info->calls(), 0) << "registration alone defines nothing";

  std::atomic<bool> go{false};
  const ClassDefinition* seen[2] = {};
  std::thread racers[2];
  for (int i = 0; i < 2; ++i) {
    racers[i] = std::thread([&, i] {
      while (!go.load()) {
        std::this_thread::yield();
      }
      seen[i] = &ObjectSystem::classDefinition(name);
    });
  }
  go = true;
  for (auto& t : racers) {
    t.join();
  }
  EXPECT_EQ(info->calls(), 1);
  EXPECT_EQ(seen[0], seen[1]);
  EXPECT_EQ(&ObjectSystem::classDefinition(name), seen[0]);
  EXPECT_EQ(info->calls(), 1);
  EXPECT_EQ(seen[0]->properties().size(), 1u);
}

// A class whose first attempt to define its members fails.
class FailsFirstTime final : public ClassInfo {
 public:
  explicit FailsFirstTime(std::string name) : name_(std::move(name)) {}
  std::string name() const override { return name_; }
  void defineMembers(ClassDefinition& d) override {
    d.addProperty(
        std::make_unique<PropertyInfo>("X", TypeRepository::lookup("double scalar"), 0, 0, 0u, "",
                                       [](void*) { return HostArray::createDoubleScalar(0.0); }));
    if (attempts_++ == 0) {
      TypeRepository::lookup("not a type");
    }
  }
  void* createInstance() override { return nullptr; }
  void destroyInstance(void*) noexcept override {}

 private:
  std::string name_;
  int attempts_ = 0;
};

TEST(ObjectSystemLazyDefinition, a_failed_definition_propagates_and_is_tried_afresh_later) {
  static int run = 0;
  const std::string name = "FailsFirstTime" + std::to_string(run++);
  ObjectSystem::registerClass(new FailsFirstTime(name));
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::classDefinition(name); }),
            "QUORIX:class:InvalidType");
  EXPECT_EQ(ObjectSystem::classDefinition(name).properties().size(), 1u)
      << "the failed attempt's members are not kept";
}

// --- objects and their lifetime -----------------------------------------------

TEST_F(ObjectSystemTest, the_last_handle_destroys_the_instance_exactly_once) {
  const int destroyedBefore = counterStats().destroyed.load();
  auto array = ObjectSystem::createObjectArray(kCounterClass, {1, 1});
  auto copy = array->clone();
  ObjectHandle held = array->object(0);
  EXPECT_EQ(copy->object(0), held);

  array.reset();
  copy.reset();
  EXPECT_EQ(counterStats().destroyed.load(), destroyedBefore) << "a handle is still held";
  held.reset();
  EXPECT_EQ(counterStats().destroyed.load(), destroyedBefore + 1);
}

TEST_F(ObjectSystemTest, object_arrays_hold_a_fresh_instance_per_element) {
  const int createdBefore = counterStats().created.load();
  const int destroyedBefore = counterStats().destroyed.load();
  {
    const auto array = ObjectSystem::createObjectArray(kCounterClass, {2, 3});
    EXPECT_EQ(array->objectClassName(), kCounterClass);
    EXPECT_EQ(array->dims(), (Dims{2, 3}));
    std::set<void*> instances;
    for (std::size_t i = 0; i < array->numel(); ++i) {
      ASSERT_TRUE(array->object(i));
      EXPECT_EQ(array->object(i)->className(), kCounterClass);
      instances.insert(array->object(i)->instance());
    }
    EXPECT_EQ(instances.size(), 6u);
    EXPECT_EQ(counterStats().created.load(), createdBefore + 6);
  }
  EXPECT_EQ(counterStats().destroyed.load(), destroyedBefore + 6);
}

TEST_F(ObjectSystemTest, arrays_of_several_objects_need_the_class_to_allow_them) {
  EXPECT_EQ(raisedIdentifier([] {
              ObjectSystem::createObjectArray(kPlainClass, {2, 1});
            }),
            "QUORIX:class:NoObjectArrays");
  EXPECT_EQ(ObjectSystem::createObjectArray(kPlainClass, {1, 1})->numel(), 1u);
  const int createdBefore = test::plainStats().created.load();
  EXPECT_EQ(ObjectSystem::createObjectArray(kPlainClass, {0, 3})->numel(), 0u);
  EXPECT_EQ(ObjectSystem::createObjectArray(kPlainClass, {3, 0})->dims(), (Dims{3, 0}));
  EXPECT_EQ(test::plainStats().created.load(), createdBefore);
}

TEST_F(ObjectSystemTest, scalar_instance_requires_one_live_object_of_the_class) {
  const auto counter = ObjectSystem::createObjectArray(kCounterClass, {1, 1});
  EXPECT_EQ(ObjectSystem::scalarInstance(*counter, kCounterClass), counter->object(0)->instance());

  const auto two = ObjectSystem::createObjectArray(kCounterClass, {1, 2});
  const auto empty = ObjectSystem::createObjectArray(kCounterClass, {0, 0});
  const auto unset = HostArray::createObjectArray(kCounterClass, {1, 1});
  const auto number = HostArray::createDoubleScalar(1.0);
  for (const HostArray* value : {two.get(), empty.get(), unset.get(), number.get()}) {
    EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::scalarInstance(*value, kCounterClass); }),
              "QUORIX:class:RequireScalarObject");
  }
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::scalarInstance(*counter, kPlainClass); }),
            "QUORIX:class:RequireScalarObject");
}

// --- construction --------------------------------------------------------------

TEST_F(ObjectSystemTest, construct_runs_the_constructor_on_the_new_object) {
  const auto seed = HostArray::createDoubleScalar(5.0);
  const auto extra = HostArray::createChar("x");
  const HostArray* in[] = {seed.get(), extra.get()};
  const auto object = ObjectSystem::construct(kCounterClass, 2, in);
  ASSERT_EQ(object->objectClassName(), kCounterClass);
  ASSERT_TRUE(object->isScalar());
  const CounterInstance& counter = counterOf(*object);
  EXPECT_TRUE(counter.constructed);
  EXPECT_EQ(counter.lastNIn, 2) << "the constructor sees only the user's inputs";
  EXPECT_EQ(counter.value, 5.0);

  EXPECT_EQ(counterOf(*ObjectSystem::construct(kCounterClass, 0, nullptr)).lastNIn, 0);
}

TEST_F(ObjectSystemTest, a_class_without_constructor_constructs_a_plain_object) {
  const auto object = ObjectSystem::construct(kPlainClass, 0, nullptr);
  EXPECT_EQ(object->objectClassName(), kPlainClass);
  EXPECT_TRUE(object->isScalar());
  EXPECT_NE(object->object(0), nullptr);
}

// --- properties ----------------------------------------------------------------

TEST_F(ObjectSystemTest, properties_read_and_write_at_their_access_levels) {
  const auto object = ObjectSystem::construct(kCounterClass, 0, nullptr);
  ObjectSystem::setProperty(*object, "Value", *HostArray::createDoubleScalar(2.5));
  EXPECT_EQ(ObjectSystem::getProperty(*object, "Value")->elementAsDouble(0), 2.5);
  EXPECT_EQ(counterOf(*object).value, 2.5);

  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::getProperty(*object, "Secret"); }),
            "QUORIX:class:AccessDenied");
  EXPECT_EQ(raisedIdentifier([&] {
              ObjectSystem::setProperty(*object, "Secret", *HostArray::createDoubleScalar(1.0));
            }),
            "QUORIX:class:AccessDenied");
  EXPECT_EQ(counterOf(*object).secret, 0.0);
  ObjectSystem::setProperty(*object, "Secret", *HostArray::createDoubleScalar(1.0),
                            kRestrictedAccess);
  EXPECT_EQ(ObjectSystem::getProperty(*object, "Secret", kRestrictedAccess)->elementAsDouble(0),
            1.0);
}

TEST_F(ObjectSystemTest, a_property_without_setter_is_read_only_at_every_level) {
  const auto object = ObjectSystem::construct(kCounterClass, 0, nullptr);
  for (const int level : {kPublicAccess, kRestrictedAccess}) {
    EXPECT_EQ(raisedIdentifier([&] {
                ObjectSystem::setProperty(*object, "Steps", *HostArray::createUInt64Scalar(3),
                                          level);
              }),
              "QUORIX:class:ReadOnly");
  }
  EXPECT_EQ(ObjectSystem::getProperty(*object, "Steps")->classID(), ClassID::UInt64);
}

TEST_F(ObjectSystemTest, unknown_properties_and_non_objects_are_refused) {
  const auto object = ObjectSystem::construct(kCounterClass, 0, nullptr);
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::getProperty(*object, "take"); }),
            "QUORIX:class:UnknownMember");
  EXPECT_EQ(raisedIdentifier([&] {
              ObjectSystem::setProperty(*object, "Nope", *HostArray::createDoubleScalar(1.0));
            }),
            "QUORIX:class:UnknownMember");
  EXPECT_EQ(raisedIdentifier(
                [] { ObjectSystem::getProperty(*HostArray::createDoubleScalar(1.0), "Value"); }),
            "QUORIX:class:UnknownMember");
  const auto two = ObjectSystem::createObjectArray(kCounterClass, {2, 1});
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::getProperty(*two, "Value"); }),
            "QUORIX:class:RequireScalarObject");
}

// --- save and restore ------------------------------------------------------------

TEST_F(ObjectSystemTest, save_reads_every_property_in_registration_order) {
  const auto object = ObjectSystem::construct(kCounterClass, 0, nullptr);
  counterOf(*object).value = 3.5;
  counterOf(*object).secret = -1.0;
  counterOf(*object).steps = 9;
  const SavedObject saved = ObjectSystem::save(*object);
  EXPECT_EQ(saved.className, kCounterClass);
  ASSERT_EQ(saved.properties.size(), 3u);
  EXPECT_EQ(saved.properties[0].name, "Value");
  EXPECT_EQ(saved.properties[1].name, "Steps");
  EXPECT_EQ(saved.properties[2].name, "Secret");
  EXPECT_EQ(saved.properties[0].value->elementAsDouble(0), 3.5);
  EXPECT_EQ(saved.properties[1].value->data<std::uint64_t>()[0], 9u);
  EXPECT_EQ(saved.properties[2].value->elementAsDouble(0), -1.0);
}

TEST_F(ObjectSystemTest, restore_rebuilds_a_new_object_from_the_settable_properties) {
  const auto object = ObjectSystem::construct(kCounterClass, 0, nullptr);
  counterOf(*object).value = 3.5;
  counterOf(*object).secret = -1.0;
  counterOf(*object).steps = 9;
  const auto restored = ObjectSystem::restore(ObjectSystem::save(*object));
  ASSERT_EQ(restored->objectClassName(), kCounterClass);
  ASSERT_TRUE(restored->isScalar());
  EXPECT_NE(restored->object(0), object->object(0));
  const CounterInstance& copy = counterOf(*restored);
  EXPECT_EQ(copy.value, 3.5);
  EXPECT_EQ(copy.secret, -1.0);
  EXPECT_EQ(copy.steps, 0u) << "a property without setter is not restored";
  EXPECT_TRUE(copy.updated);
  EXPECT_FALSE(copy.constructed) << "restore does not run the constructor";
  // Saving the copy gives the same values again.
  const SavedObject again = ObjectSystem::save(*restored);
  EXPECT_EQ(again.properties[0].value->elementAsDouble(0), 3.5);
  EXPECT_EQ(again.properties[2].value->elementAsDouble(0), -1.0);
}

TEST_F(ObjectSystemTest, classes_that_do_not_save_by_properties_are_not_savable) {
  const auto plain = ObjectSystem::construct(kPlainClass, 0, nullptr);
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::save(*plain); }), "QUORIX:class:NotSavable");
  SavedObject saved;
  saved.className = kPlainClass;
  EXPECT_EQ(raisedIdentifier([&] { ObjectSystem::restore(saved); }), "QUORIX:class:NotSavable");
  EXPECT_EQ(raisedIdentifier([] { ObjectSystem::save(*HostArray::createDoubleScalar(1.0)); }),
            "QUORIX:class:NotSavable");
}

// --- base class answers ------------------------------------------------------------

TEST(ClassInfoDefaults, a_class_overriding_nothing_answers_no_and_empty) {
  bool destroyed = false;
  {
    Doomed info("Defaults", &destroyed);
    const ClassInfo& base = info;
    EXPECT_FALSE(base.savesByProperties());
    EXPECT_FALSE(base.allowsObjectArrays());
    EXPECT_FALSE(base.hidden());
    EXPECT_FALSE(base.sealed());
    EXPECT_FALSE(base.abstract());
    EXPECT_FALSE(base.containsHandles());
    EXPECT_FALSE(base.containsFunctions());
    EXPECT_FALSE(base.handleCompatible());
    EXPECT_FALSE(base.isEnumeration());
    EXPECT_FALSE(base.hasCustomSave());
    EXPECT_FALSE(base.hasCustomLoad());
    EXPECT_EQ(base.description(), "");
    EXPECT_EQ(base.detailedDescription(), "");
    EXPECT_EQ(base.classAccess(), 0);
  }
  EXPECT_TRUE(destroyed);
}

}  // namespace
}  // namespace quorix
