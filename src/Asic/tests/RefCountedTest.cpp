#include "Asic/RefCounted.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Asic/Observable.h"

namespace Asic {
namespace {

struct Events {
   int lastUserGone = 0;
   int deleted = 0;
   std::uint32_t countAtLastUserGone = 0;
};

// Instrumented shared object: reports its last-user and deletion events to the test.
class Tracked : public RefCounted {
 public:
   explicit Tracked(Events* events) : events_(events) {}
   ~Tracked() override { ++events_->deleted; }

 protected:
   void lastUserGone() override {
      ++events_->lastUserGone;
      events_->countAtLastUserGone = refCount();
   }

 private:
   Events* events_;  // not owned
};

// Runs every case with plain and with atomic counts; the flag is process-wide, so it is
// put back afterwards.
class RefCountedTest : public ::testing::TestWithParam<bool> {
 protected:
   void SetUp() override { saved_ = std::exchange(threadSafeRefCounts, GetParam()); }
   void TearDown() override { threadSafeRefCounts = saved_; }

 private:
   bool saved_ = false;
};

// Verify that lastUserGone runs exactly when the count falls to one (never on an
// increment, never at zero) and that the object is deleted exactly once, at zero.
TEST_P(RefCountedTest, LastUserGoneAtOneDeleteAtZero) {
   Events events;
   Ptr<Tracked> owner = makePtr<Tracked>(&events);
   EXPECT_EQ(owner->refCount(), 1u);
   EXPECT_EQ(events.lastUserGone, 0) << "creation is not a release";

   Ptr<Tracked> user1 = owner;
   Ptr<Tracked> user2 = owner;
   EXPECT_EQ(owner->refCount(), 3u);
   EXPECT_EQ(events.lastUserGone, 0) << "increments must not run lastUserGone";

   user1.reset();
   EXPECT_EQ(events.lastUserGone, 0) << "two owners are still left";
   user2.reset();
   EXPECT_EQ(events.lastUserGone, 1);
   EXPECT_EQ(events.countAtLastUserGone, 1u);
   EXPECT_EQ(events.deleted, 0);

   // A new user that goes away again makes the remaining owner the last one again.
   Ptr<Tracked> again = owner;
   again.reset();
   EXPECT_EQ(events.lastUserGone, 2);

   owner.reset();
   EXPECT_EQ(events.lastUserGone, 2) << "falling to zero is deletion, not lastUserGone";
   EXPECT_EQ(events.deleted, 1);
}

// Verify that moving a reference neither counts nor releases.
TEST_P(RefCountedTest, MoveKeepsCount) {
   Events events;
   Ptr<Tracked> a = makePtr<Tracked>(&events);
   Ptr<Tracked> keep = a;
   Ptr<Tracked> b = std::move(a);
   EXPECT_EQ(b->refCount(), 2u);
   EXPECT_EQ(events.lastUserGone, 0);
   b.reset();
   keep.reset();
   EXPECT_EQ(events.deleted, 1);
}

// Verify that a copied object starts with no owners of its own.
TEST_P(RefCountedTest, CopyStartsWithoutOwners) {
   Events events;
   Ptr<Tracked> a = makePtr<Tracked>(&events);
   Ptr<Tracked> b = a;
   Ptr<Tracked> copy = makePtr<Tracked>(*a);
   EXPECT_EQ(copy->refCount(), 1u);
   EXPECT_EQ(a->refCount(), 2u);
   copy.reset();
   EXPECT_EQ(events.deleted, 1) << "the copy alone goes";
   EXPECT_EQ(events.lastUserGone, 0);
}

INSTANTIATE_TEST_SUITE_P(Counts, RefCountedTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Atomic" : "Plain"; });

class Announcer : public Observable {
 public:
   using Observable::publish;
};

// Verify that every observer hears each announcement once with the attribute name, and
// that a removed observer hears no more.
TEST(ObservableTest, ObserversHearEachAnnouncement) {
   Announcer a;
   std::vector<std::string> heard1;
   std::vector<std::string> heard2;
   auto id1 = a.observerIs([&](std::string_view attr) { heard1.emplace_back(attr); });
   a.observerIs([&](std::string_view attr) { heard2.emplace_back(attr); });
   a.publish("entryState");
   a.observerDel(id1);
   a.publish("hwIndex");
   a.observerDel(id1);  // unknown id: nothing happens
   EXPECT_EQ(heard1, std::vector<std::string>{"entryState"});
   EXPECT_EQ(heard2, (std::vector<std::string>{"entryState", "hwIndex"}));

   Announcer silent;
   silent.observerDel(7);
   silent.publish("nobody listens");  // no observers: nothing to check but no effect
   EXPECT_EQ(heard2.size(), 2u);
}

// Verify that observers may unsubscribe themselves or others while being told: one
// removed during the announcement is not told afterwards, and one added during it is told
// from the next announcement on.
TEST(ObservableTest, UnsubscribeDuringNotification) {
   Announcer a;
   std::vector<std::string> order;
   Observable::ObserverId self = 0;
   Observable::ObserverId victim = 0;
   self = a.observerIs([&](std::string_view) {
      order.push_back("self");
      a.observerDel(self);
      a.observerDel(victim);
      a.observerIs([&](std::string_view) { order.push_back("late"); });
   });
   victim = a.observerIs([&](std::string_view) { order.push_back("victim"); });
   a.observerIs([&](std::string_view) { order.push_back("last"); });

   a.publish("x");
   EXPECT_EQ(order, (std::vector<std::string>{"self", "last"}));
   order.clear();
   a.publish("y");
   EXPECT_EQ(order, (std::vector<std::string>{"last", "late"}));
}

// Verify that observers follow the object, not its copies.
TEST(ObservableTest, CopiesHaveNoObservers) {
   Announcer a;
   int told = 0;
   a.observerIs([&](std::string_view) { ++told; });
   Announcer b = a;
   b.publish("x");
   EXPECT_EQ(told, 0);
   b = a;
   b.publish("x");
   a.publish("x");
   EXPECT_EQ(told, 1);
}

// Verify that an object's observers go with it: what they hold is let go of when the
// object is destroyed, not kept for whatever object the address is used for next.
TEST(ObservableTest, ObserversGoWithTheObject) {
   auto held = std::make_shared<int>(0);
   {
      Announcer a;
      a.observerIs([held](std::string_view) { ++*held; });
      a.publish("x");
      EXPECT_EQ(held.use_count(), 2);
   }
   EXPECT_EQ(held.use_count(), 1);
   EXPECT_EQ(*held, 1);
   Announcer fresh;
   fresh.publish("y");
   EXPECT_EQ(*held, 1);
}

// Verify that removing an observer that holds the last count of another observed object
// destroys that object cleanly (its observers go with it), and that an object whose last
// observer went is announced to nobody.
TEST(ObservableTest, RemovedObserverMayHoldTheLastOfAnotherObservedObject) {
   auto inner = std::make_shared<Announcer>();
   int innerTold = 0;
   inner->observerIs([&](std::string_view) { ++innerTold; });
   Announcer outer;
   int outerTold = 0;
   auto id = outer.observerIs([held = std::move(inner), &outerTold](std::string_view attr) {
      ++outerTold;
      held->publish(attr);
   });
   outer.publish("x");
   outer.observerDel(id);
   outer.publish("y");
   EXPECT_EQ(outerTold, 1);
   EXPECT_EQ(innerTold, 1);
}
}  // namespace
}  // namespace Asic
