// Writes a generated document to a file, for measures that need a process of their own.

#include <fstream>

#include "CalendarGenerator.h"
#include "Race.h"

int main(int count, char** arguments) {
  using namespace benchmarks;
  const std::size_t events = eventsFromArguments(count, arguments);
  require(count == 3, "the second argument is the file to write");
  std::ofstream file(arguments[2], std::ios::binary);
  file << generateCalendar(events).text << std::flush;
  require(file.good(), "the file cannot be written");
}
