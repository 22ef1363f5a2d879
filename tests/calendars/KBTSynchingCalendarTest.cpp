#include <gtest/gtest.h>
#include <quillmere/calendars/KBTDavCalendar.h>
#include <quillmere/calendars/KBTFileCalendar.h>
#include <quillmere/calendars/KBTLocalCalendar.h>
#include <quillmere/calendars/KBTURLCalendar.h>
#include <quillmere/platform/base/makeObject.h>

#include "tests/support/RecordingDelegate.h"

namespace quillmere {
namespace {

using testing::Item, testing::RecordingDelegate;
using Log = std::vector<std::string>;

// What a host cannot write by mistake: a calendar without its store, and a text made of a null pointer.
template <class Calendar>
concept IsMadeOfNothing = requires {
  Calendar::init();
};
template <class Calendar>
concept TakesNullPointer = requires(Calendar& calendar) {
  calendar.setCachingString(nullptr);
};
template <class... Calendars>
constexpr bool refusesBoth = !((IsMadeOfNothing<Calendars> || TakesNullPointer<Calendars>) || ...);
static_assert(refusesBoth<KBTDavCalendar, KBTFileCalendar, KBTLocalCalendar, KBTURLCalendar>);
static_assert(IsMadeOfNothing<KBTDataCalendar> && !TakesNullPointer<KBTDataCalendar>);

// Lets tests see and set what subclasses work with.
class OpenCalendar : public KBTSynchingCalendar {
 public:
  using KBTSynchingCalendar::deleteSet, KBTSynchingCalendar::insertSet,
      KBTSynchingCalendar::objectsByUniqueName, KBTSynchingCalendar::setIsChecking,
      KBTSynchingCalendar::setIsSaving, KBTSynchingCalendar::updateSet;
};

class SynchingCalendar : public ::testing::Test {
 protected:
  SynchingCalendar() { calendar->setDelegate(host); }

  std::shared_ptr<RecordingDelegate> host = std::make_shared<RecordingDelegate>();
  std::shared_ptr<OpenCalendar> calendar = makeObject<OpenCalendar>();
};

TEST_F(SynchingCalendar, TheBaseAnswersAtOnceThatNothingChanged) {
  calendar->checkForExternalChanges();
  calendar->fetchExternalChanges();
  calendar->cancel();
  EXPECT_EQ(host->take(), (Log{"checked none", "fetched"}));
  calendar->setCachingString("token");
  EXPECT_EQ(calendar->cachingString(), std::nullopt);
  EXPECT_FALSE(calendar->isEqualToCalendar(*calendar));
}

TEST_F(SynchingCalendar, SetObjectsReplacesTheObjectsAndLeavesPendingNames) {
  const auto second = Item::make("a");
  calendar->insertObject(Item::make("old"));
  calendar->setObjects({Item::make("a"), Item::make("b"), second});
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), (Log{"a", "b"}));
  EXPECT_EQ(*calendar->objectsByUniqueName().find("a"), second);
  EXPECT_EQ(calendar->insertSet().names(), Log{"old"});
}

TEST_F(SynchingCalendar, WhileASaveIsInFlightChangesAreDropped) {
  const auto change = [&] {
    calendar->insertObject(Item::make("a"));
    calendar->updateObject(Item::make("a"));
    calendar->deleteObject(Item::make("a"));
  };
  int questions = 0;
  host->onCallback = [&](const std::string&) { ++questions; };
  calendar->setIsSaving(true);
  change();
  EXPECT_FALSE(calendar->hasPendingChanges());
  EXPECT_TRUE(calendar->objectsByUniqueName().empty());
  EXPECT_EQ(questions, 0) << "not even its name is asked for";

  calendar->setIsSaving(false);
  calendar->setIsChecking(true);
  change();
  for (const auto* names :
       {&calendar->insertSet(), &calendar->updateSet(), &calendar->deleteSet()}) {
    EXPECT_TRUE(names->contains("a")) << "a check does not block changes";
  }
}

TEST_F(SynchingCalendar, NullIsNoObject) {
  calendar->setObjects({nullptr, Item::make("a")});
  calendar->insertObject(nullptr);
  EXPECT_FALSE(calendar->hasPendingChanges());
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"a"});
}

TEST_F(SynchingCalendar, EachKindOfChangeIsPendingUntilReset) {
  const auto a = Item::make("a");
  const std::function<void()> changes[] = {[&] { calendar->insertObject(a); },
                                           [&] { calendar->updateObject(a); },
                                           [&] { calendar->deleteObject(a); }};
  for (const auto& change : changes) {
    change();
    EXPECT_TRUE(calendar->hasPendingChanges());
    calendar->resetChanges();
    EXPECT_FALSE(calendar->hasPendingChanges());
  }
}

TEST_F(SynchingCalendar, TheBaseSaveForgetsDeletedObjectsAndChanges) {
  const auto a = Item::make("a"), b = Item::make("b");
  calendar->setObjects({a, b});
  calendar->deleteObject(a);
  calendar->updateObject(b);
  bool pendingWhenTold = true;
  host->onCallback = [&](const std::string&) { pendingWhenTold = calendar->hasPendingChanges(); };
  calendar->saveChanges();
  EXPECT_EQ(host->take(), Log{"saved"});
  EXPECT_FALSE(pendingWhenTold) << "the reset comes before the callback";
  EXPECT_EQ(calendar->objectsByUniqueName().keys(), Log{"b"});
}

TEST_F(SynchingCalendar, ADelegateThatIsGoneCountsAsNone) {
  calendar->insertObject(Item::make("a"));
  host.reset();
  calendar->setObjects({Item::make("b")});
  calendar->insertObject(Item::make("c"));
  calendar->deleteObject(Item::make("d"));
  calendar->checkForExternalChanges();
  calendar->fetchExternalChanges();
  EXPECT_TRUE(calendar->objectsByUniqueName().empty());
  EXPECT_EQ(calendar->insertSet().names(), Log{"a"}) << "no name, no record";
  calendar->saveChanges();
  EXPECT_FALSE(calendar->hasPendingChanges());
}

TEST_F(SynchingCalendar, TheLastReferenceMayGoInACallback) {
  for (const auto operation :
       {&KBTSynchingCalendar::checkForExternalChanges, &KBTSynchingCalendar::fetchExternalChanges,
        &KBTSynchingCalendar::saveChanges}) {
    for (const bool holdsData : {false, true}) {
      auto last = KBTSynchingCalendar::init();
      if (holdsData) last = KBTDataCalendar::init();
      host->onCallback = [](const std::string&) {};
      last->setDelegate(host);
      last->setObjects({Item::make("a")});
      EXPECT_TRUE(testing::outlivesItsLastReference(*host, std::move(last), operation));
    }
  }
}

}  // namespace
}  // namespace quillmere
