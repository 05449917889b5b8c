#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "Kel/Entity.h"

namespace {

// A small entity with one attribute. Keyed collections and their notices are
// checked through the options data sources (tests/Ipfix/OptionsDataTest).
class Widget : public Kel::Entity {
 public:
   class Notifiee : public Kel::BaseNotifiee<Widget> {
    public:
      virtual void onColor() {}
   };

   int color() const { return color_; }
   void colorIs(int color) { attributeIs(color_, color, &Notifiee::onColor); }

 private:
   int color_ = 0;
};

// Records what it is told ("a1 b1": reactor a, then b, saw color 1) and runs
// an optional disruption on each call.
class Recorder : public Widget::Notifiee {
 public:
   Recorder(const Kel::Ptr<Widget>& w, Kel::String* log, Kel::String tag)
       : log_(log), tag_(std::move(tag)) {
      notifierIs(w);
   }
   void onColor() override {
      *log_ += (log_->empty() ? "" : " ") + tag_ + std::to_string(notifier()->color());
      if (disrupt) {
         disrupt();
      }
   }

   std::function<void()> disrupt;

 private:
   Kel::String* log_;
   Kel::String tag_;
};

using Recorders = std::vector<std::unique_ptr<Recorder>>;

// Re-entrancy: each row disrupts the list once, from inside a reactor's
// callback, and states who must be called in that round and the next.
struct DisruptCase {
   const char* name;
   std::function<void(Recorders&, Kel::Ptr<Widget>&, Kel::String*)> disruption;
   Kel::String firstRound;
   Kel::String secondRound;
   // The reactor whose callback disrupts.
   std::size_t disruptor = 0;
};

TEST(Entity, NotificationSurvivesDisruptionFromInside) {
   const std::vector<DisruptCase> cases = {
       {"destroy self", [](auto& rs, auto&, auto*) { rs[0].reset(); }, "a1 b1 c1", "b2 c2"},
       {"destroy a later reactor", [](auto& rs, auto&, auto*) { rs[1].reset(); }, "a1 c1", "a2 c2"},
       {"destroy an earlier reactor", [](auto& rs, auto&, auto*) { rs[0].reset(); }, "a1 b1 c1",
        "b2 c2", 1},
       // The widget dies inside its own notification.
       {"destroy all reactors, the widget's last holders",
        [](auto& rs, auto& w, auto*) {
           w = nullptr;
           rs.clear();
        },
        "a1", ""},
       {"attach a new reactor: not called this round",
        [](auto& rs, auto& w, auto* log) { rs.push_back(std::make_unique<Recorder>(w, log, "d")); },
        "a1 b1 c1", "a2 b2 c2 d2"},
       {"set the value it has: no nested round", [](auto&, auto& w, auto*) { w->colorIs(1); },
        "a1 b1 c1", "a2 b2 c2"},
       {"mutate the notifier again: nested round, then the outer one goes on",
        [](auto&, auto& w, auto*) { w->colorIs(10); }, "a1 a10 b10 c10 b10 c10", "a2 b2 c2"},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      auto w = Kel::makePtr<Widget>();
      w->hasNotificationActiveIs(true);
      Kel::String log;
      Recorders rs;
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
      if (w) {
         w->colorIs(2);
      }
      EXPECT_EQ(log, c.secondRound);
   }
}

}  // namespace
