#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "Kel/Entity.h"
#include "Kel/Exception.h"

namespace {

// A small entity with one attribute and one keyed collection.
class Widget : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<Widget> {
    public:
      virtual void onColor() {}
      virtual void onPart(const Kel::Name&) {}
   };

   int color() const { return color_; }
   void colorIs(int color) { attributeIs(color_, color, &Notifiee::onColor); }

   const std::map<Kel::Name, int>& part() const { return part_; }
   void partIs(const Kel::Name& name, int value) { entryIs(part_, name, value, &Notifiee::onPart); }
   void partDel(const Kel::Name& name) { entryDel(part_, name, &Notifiee::onPart); }
   void partDelAll() { entryDelAll(part_, &Notifiee::onPart); }

 private:
   int color_ = 0;
   std::map<Kel::Name, int> part_;
};

Kel::Ptr<Widget> activeWidget() {
   auto w = Kel::makePtr<Widget>();
   w->hasNotificationActiveIs(true);
   return w;
}

// Records what it is told and runs an optional disruption on each call.
class Recorder : public Widget::Notifiee {
 public:
   Recorder(const Kel::Ptr<Widget>& w, std::vector<Kel::String>* log, Kel::String tag)
       : log_(log), tag_(std::move(tag)) {
      notifierIs(w);
   }
   void onColor() override {
      log_->push_back(tag_ + ":color=" + std::to_string(notifier()->color()));
      if (disrupt) {
         disrupt();
      }
   }
   void onPart(const Kel::Name& name) override {
      const auto it = notifier()->part().find(name);
      log_->push_back(tag_ + ":part " + name + "=" +
                      (it == notifier()->part().end() ? "gone" : std::to_string(it->second)));
   }

   std::function<void()> disrupt;

 private:
   std::vector<Kel::String>* log_;
   Kel::String tag_;
};

TEST(Entity, NotifiesOnlyOnChangeAndOnlyWhenActive) {
   auto w = Kel::makePtr<Widget>();
   std::vector<Kel::String> log;
   Recorder r(w, &log, "r");

   w->colorIs(1);  // notification not switched on yet
   EXPECT_TRUE(log.empty());
   EXPECT_EQ(w->color(), 1);

   w->hasNotificationActiveIs(true);
   w->colorIs(1);  // unchanged
   w->colorIs(2);
   w->colorIs(2);
   EXPECT_EQ(log, (std::vector<Kel::String>{"r:color=2"}));
}

TEST(Entity, CollectionNotifiesWithKeyOnChangeOnly) {
   auto w = activeWidget();
   std::vector<Kel::String> log;
   Recorder r(w, &log, "r");

   w->partIs("a", 1);
   w->partIs("a", 1);  // same value: silent
   w->partIs("b", 2);
   w->partIs("a", 3);
   w->partDel("zz");  // absent: silent
   w->partDel("b");
   w->partIs("c", 4);
   w->partDelAll();
   EXPECT_EQ(log,
             (std::vector<Kel::String>{"r:part a=1", "r:part b=2", "r:part a=3", "r:part b=gone",
                                       "r:part c=4", "r:part a=gone", "r:part c=gone"}));
}

TEST(Entity, ReactorDetachesWhenDestroyedAndCanBeRepointed) {
   auto w1 = activeWidget();
   auto w2 = activeWidget();
   std::vector<Kel::String> log;
   {
      Recorder r(w1, &log, "r");
      EXPECT_EQ(w1->notifieeCount(), 1u);
      r.notifierIs(w2);
      EXPECT_EQ(w1->notifieeCount(), 0u);
      w1->colorIs(5);
      w2->colorIs(6);
   }
   EXPECT_EQ(w2->notifieeCount(), 0u);
   w2->colorIs(7);
   EXPECT_EQ(log, (std::vector<Kel::String>{"r:color=6"}));
}

// Re-entrancy: each row disrupts the list from inside the first reactor's
// callback and states who must be called in that round and the next.
struct DisruptCase {
   const char* name;
   std::function<void(std::vector<std::unique_ptr<Recorder>>&, const Kel::Ptr<Widget>&,
                      std::vector<Kel::String>*)>
       disruption;
   std::vector<Kel::String> firstRound;
   std::vector<Kel::String> secondRound;
   // The reactor whose callback disrupts.
   std::size_t disruptor = 0;
};

TEST(Entity, NotificationSurvivesDisruptionFromInside) {
   const std::vector<DisruptCase> cases = {
       {"destroy self",
        [](auto& rs, auto&, auto*) { rs[0].reset(); },
        {"a:color=1", "b:color=1", "c:color=1"},
        {"b:color=2", "c:color=2"}},
       {"destroy a later reactor",
        [](auto& rs, auto&, auto*) { rs[1].reset(); },
        {"a:color=1", "c:color=1"},
        {"a:color=2", "c:color=2"}},
       {"destroy an earlier reactor",
        [](auto& rs, auto&, auto*) { rs[0].reset(); },
        {"a:color=1", "b:color=1", "c:color=1"},
        {"b:color=2", "c:color=2"},
        1},
       {"destroy all reactors",
        [](auto& rs, auto&, auto*) {
           for (auto& r : rs)
              r.reset();
        },
        {"a:color=1"},
        {}},
       {"attach a new reactor: not called this round",
        [](auto& rs, auto& w, auto* log) {
           if (rs.size() == 3)
              rs.push_back(std::make_unique<Recorder>(w, log, "d"));
        },
        {"a:color=1", "b:color=1", "c:color=1"},
        {"a:color=2", "b:color=2", "c:color=2", "d:color=2"}},
       {"mutate the notifier again: nested round, then the outer one goes on",
        [](auto&, auto& w, auto*) {
           if (w->color() == 1)
              w->colorIs(10);
        },
        {"a:color=1", "a:color=10", "b:color=10", "c:color=10", "b:color=10", "c:color=10"},
        {"a:color=2", "b:color=2", "c:color=2"}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto w = activeWidget();
      std::vector<Kel::String> log;
      std::vector<std::unique_ptr<Recorder>> rs;
      for (const char* tag : {"a", "b", "c"}) {
         rs.push_back(std::make_unique<Recorder>(w, &log, tag));
      }
      bool once = true;
      rs[c.disruptor]->disrupt = [&] {
         if (once) {
            once = false;
            c.disruption(rs, w, &log);
         }
      };
      w->colorIs(1);
      EXPECT_EQ(log, c.firstRound);
      log.clear();
      w->colorIs(2);
      EXPECT_EQ(log, c.secondRound);
   }
}

TEST(Entity, ReactorHoldingLastReferenceMayDieDuringNotification) {
   std::vector<Kel::String> log;
   auto w = activeWidget();
   Widget* raw = w.ptr();
   auto r = std::make_unique<Recorder>(w, &log, "only");
   r->disrupt = [&] { r.reset(); };
   w = nullptr;  // the reactor now holds the last reference
   raw->colorIs(3);
   EXPECT_EQ(r, nullptr);
   EXPECT_EQ(log, (std::vector<Kel::String>{"only:color=3"}));
}

TEST(Ptr, CountsReferencesAndConvertsToConst) {
   auto w = Kel::makePtr<Widget>();
   EXPECT_EQ(w->references(), 1u);
   {
      Kel::Ptr<const Widget> c = w;
      EXPECT_EQ(w->references(), 2u);
      EXPECT_TRUE(c == w);
   }
   EXPECT_EQ(w->references(), 1u);
   EXPECT_EQ(fmt::format("{}", Kel::Ptr<Widget>()), "0x0");
   EXPECT_EQ(fmt::format("{}", w), fmt::format("{}", static_cast<const void*>(w.ptr())));
}

}  // namespace
