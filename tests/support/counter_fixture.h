// A fixture with both test classes registered and one Counter object, made
// by its constructor without inputs.
#pragma once

#include <gtest/gtest.h>

#include "counter_class.h"

namespace quorix::test {

class CounterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    registerCounterClass();
    registerPlainClass();
    object_ = ObjectSystem::construct(kCounterClass, 0, nullptr);
  }
  static CounterInstance& counterOf(const HostArray& object) {
    return ObjectSystem::scalarInstanceAs<CounterInstance>(object, kCounterClass);
  }
  CounterInstance& counter() { return counterOf(*object_); }

  HostArrayPtr object_;
};

}  // namespace quorix::test
