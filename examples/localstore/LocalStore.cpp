// localstore looks into the user's event store and changes it: an example host of Quillmere.

#include <quillmere/calendars/KBTLocalCalendar.h>
#include <quillmere/platform/base/HWPreference.h>
#include <quillmere/platform/dates/NSCalendar.h>
#include <quillmere/platform/loop/NSRunLoop.h>
#include <quillmere/platform/notifications/NSNotificationCenter.h>

#include <cstdio>
#include <iostream>

#include "Calendar.h"
#include "CommandLine.h"
#include "common/Printable.h"
#include "common/Program.h"

namespace localstore {
namespace {

using examples::printable;
using quillmere::KBTLocalCalendar;
using quillmere::NSCalendar;
using quillmere::NSDate;

// As the command line takes it.
std::string textOf(NSDate date, bool isDay) {
  const auto fields = NSCalendar::currentCalendar().componentsFromDate(date);
  const auto number = [](std::optional<std::int64_t> field) {
    return static_cast<long long>(field.value());
  };
  char text[64];
  std::snprintf(text, sizeof text,
                isDay ? "%04lld-%02lld-%02lld" : "%04lld-%02lld-%02lldT%02lld:%02lld",
                number(fields.year), number(fields.month), number(fields.day), number(fields.hour),
                number(fields.minute));
  return text;
}

void printCalendars() {
  usersStore();
  for (const auto& calendar : KBTLocalCalendar::localCalendars()) {
    std::cout << printable(calendar->calendarIdentifier()) << "\t"
              << printable(calendar->title().value_or("")) << "\n";
  }
}

void list(const Calendar& calendar, const Options& options) {
  const NSDate from = options.from
                          ? options.from->date
                          : NSCalendar::currentCalendar().startOfDayForDate(NSDate::date());
  for (const Event& event : calendar.eventsBetween(from, afterDays(options.days, from).value())) {
    const NSDate start = event.start.value();
    const NSDate end = event.end.value();
    std::cout << printable(event.name) << "\t" << textOf(start, event.isAllDay) << "\t"
              << textOf(event.isAllDay ? end.dateByAddingSeconds(-1) : end, event.isAllDay) << "\t"
              << printable(event.title.value_or("")) << "\t" << printable(event.notes) << "\n";
  }
}

std::string titlesOfCalendars() {
  std::string titles;
  for (const auto& calendar : KBTLocalCalendar::localCalendars()) {
    if (!titles.empty()) titles += ", ";
    titles += calendar->title().value_or("");
  }
  return titles;
}

void tell(const std::string& line) { std::cout << printable(line) << std::endl; }

void watch(std::optional<std::int64_t> seconds) {
  const auto store = usersStore();
  std::string known = titlesOfCalendars();
  tell("watching: " + known);
  // The list is read anew with every change of an event as well.
  const auto calendars = KBTLocalCalendar::observeKey_changeHandler("localCalendars", [&known] {
    const std::string titles = titlesOfCalendars();
    if (titles != known) tell("calendars: " + titles);
    known = titles;
  });
  const auto changes =
      quillmere::NSNotificationCenter::defaultCenter().addObserverForName_object_usingBlock(
          quillmere::EKEventStoreChangedNotification, store,
          [](const quillmere::NSNotification&) { tell("the store has changed"); });
  std::optional<NSDate> end;
  if (seconds) end = NSDate::date().dateByAddingSeconds(*seconds);
  quillmere::NSRunLoop::mainRunLoop().runUntilDate(end);
}

void runOnCalendar(const Options& options) {
  const Calendar calendar(options.arguments[0]);
  if (options.command == "list") {
    list(calendar, options);
  } else if (options.command == "add") {
    std::cout << "added " << printable(calendar.add(edited({}, options.fields))) << "\n";
  } else if (options.command == "change") {
    calendar.change(options.arguments[1], options.fields);
    std::cout << "changed " << printable(options.arguments[1]) << "\n";
  } else {
    calendar.remove(options.arguments[1]);
    std::cout << "removed " << printable(options.arguments[1]) << "\n";
  }
}

examples::ExitStatus run(const Options& options) {
  if (options.needsHelp) {
    std::cout << helpText;
    return examples::allWell;
  }
  if (options.backend) {
    quillmere::HWPreference::preferenceForKey("EKEventStoreBackend")
        ->setStringValue(options.backend);
  }
  if (options.command == "calendars") {
    printCalendars();
  } else if (options.command == "create-calendar") {
    std::cout << "created " << printable(createCalendar(options.arguments[0])) << "\n";
  } else if (options.command == "watch") {
    watch(options.seconds);
  } else {
    runOnCalendar(options);
  }
  return examples::allWell;
}

}  // namespace
}  // namespace localstore

int main(int argc, char** argv) {
  return examples::runProgram(
      [=] { return localstore::run(localstore::parseCommandLine(argc, argv)); });
}
