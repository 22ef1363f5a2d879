// Fetches a file of the given number of events, and tells how far that raised the resident memory.

#include <quillmere/calendars/KBTFileCalendar.h>

#include <filesystem>
#include <string>

#include "Process.h"
#include "Race.h"
#include "RecordingHost.h"

using namespace benchmarks;

int main(int count, char** arguments) {
  const std::size_t events = eventsFromArguments(count, arguments);
  require(count == 3, "the second argument is the file to fetch");
  const std::string path = arguments[2];
  const auto fileSize = static_cast<double>(std::filesystem::file_size(path));

  const double before = Memory::now().resident;
  const auto host = std::make_shared<RecordingHost>();
  const auto calendar = quillmere::KBTFileCalendar::initWithPath(path);
  calendar->setDelegate(host);
  calendar->fetchExternalChanges();
  const double peak = Memory::now().peak - before;
  require(host->hasFetched() && host->objects().size() == events,
          "the fetch did not report every event");

  const double most = 1.3 * fileSize + 200 * static_cast<double>(events);
  Row row;
  row.measure = "fetch of a file, peak memory " + megabytes(peak) + " MB";
  row.ofLimit = formatted(peak / fileSize, "%.2f x file size");
  row.target = "at most 1.3 x file size + 200 bytes an object, " + megabytes(most) + " MB";
  row.met = yesNo(peak <= most);
  print(row);
}
