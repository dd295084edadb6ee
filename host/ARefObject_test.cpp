#include "host/ARefObject.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "host/RefPtr.h"

namespace {

using NorvaneGraphics::ARefObject;

class Counted : public ARefObject {
 public:
  explicit Counted(int* deaths) : deaths_(deaths) {}

 protected:
  ~Counted() override { ++*deaths_; }

 private:
  int* deaths_;
};

static_assert(!std::is_destructible<ARefObject>::value, "dies only through Release");
static_assert(!std::is_destructible<Counted>::value, "dies only through Release");
static_assert(std::has_virtual_destructor<ARefObject>::value, "virtual destructor");

TEST(ARefObjectTest, TheLastReleaseDeletesTheObject) {
  int deaths = 0;
  Counted* object = new Counted(&deaths);
  EXPECT_EQ(object->GetRefCount(), 0);
  EXPECT_EQ(object->AddRef(), 1);
  EXPECT_EQ(object->AddRef(), 2);
  EXPECT_EQ(object->Release(), 1);
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(object->Release(), 0);
  EXPECT_EQ(deaths, 1);
}

TEST(ARefObjectTest, QueryInterfaceOffersNothingByDefault) {
  int deaths = 0;
  RefPtr<Counted> object(new Counted(&deaths));
  EXPECT_EQ(object->QueryInterface(1), nullptr);
}

class SelfCounting : public ARefObject {
 public:
  explicit SelfCounting(int* deleted) : deleted_(deleted) {}
  void DeleteThis() override {
    ++*deleted_;
    ARefObject::DeleteThis();
  }

 private:
  int* deleted_;
};

TEST(ARefObjectTest, ReleaseDiesThroughDeleteThis) {
  int deleted = 0;
  { RefPtr<SelfCounting> object(new SelfCounting(&deleted)); }
  EXPECT_EQ(deleted, 1);
}

TEST(RefPtrTest, CopiesAndMovesKeepTheCountRight) {
  int deaths = 0;
  {
    RefPtr<Counted> first(new Counted(&deaths));
    EXPECT_EQ(first->GetRefCount(), 1);
    RefPtr<Counted> second = first;
    EXPECT_EQ(first->GetRefCount(), 2);
    RefPtr<Counted> third = std::move(second);
    EXPECT_FALSE(second);
    EXPECT_EQ(first->GetRefCount(), 2);
    RefPtr<ARefObject> base = first;
    EXPECT_EQ(first->GetRefCount(), 3);
    third.Reset();
    base = nullptr;
    EXPECT_EQ(first->GetRefCount(), 1);
    EXPECT_EQ(deaths, 0);
  }
  EXPECT_EQ(deaths, 1);
}

TEST(RefPtrTest, SelfAssignmentKeepsTheObject) {
  int deaths = 0;
  RefPtr<Counted> object(new Counted(&deaths));
  RefPtr<Counted>& alias = object;
  object = alias;
  EXPECT_EQ(deaths, 0);
  EXPECT_EQ(object->GetRefCount(), 1);
}

}  // namespace
