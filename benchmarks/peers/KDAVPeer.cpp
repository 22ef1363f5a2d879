// Lists and fetches the collection at the URL given, by KDAV. Prints the number of items, the bytes
// of their texts, the seconds it took and by how many bytes the resident memory rose at most.

#include <KDAV/DavItemsFetchJob>
#include <KDAV/DavItemsListJob>
#include <KDAV/DavUrl>
#include <KDAV/EtagCache>
#include <QCoreApplication>
#include <QUrl>
#include <cstdio>
#include <memory>

#include "../Process.h"
#include "../Race.h"

int main(int count, char** arguments) {
  using namespace benchmarks;
  qputenv("QT_LOGGING_RULES", "*.warning=false");  // of sessions that have no desktop
  const QCoreApplication application(count, arguments);
  require(count == 2, "the argument is the URL of a collection");
  const KDAV::DavUrl url(QUrl(QString::fromLocal8Bit(arguments[1])), KDAV::CalDav);

  const double before = Memory::now().resident;
  const Times start = Times::now();
  const auto etags = std::make_shared<KDAV::EtagCache>();
  KDAV::DavItemsListJob listing(url, etags);
  listing.setAutoDelete(false);
  listing.setContentMimeTypes({QStringLiteral("application/x-vnd.akonadi.calendar.event")});
  require(listing.exec(), "KDAV cannot list the collection");
  QStringList changed;
  for (const KDAV::DavItem& item : listing.changedItems()) {
    changed.append(item.url().toDisplayString());
  }
  KDAV::DavItemsFetchJob fetch(url, changed);
  fetch.setAutoDelete(false);
  require(fetch.exec(), "KDAV cannot fetch the items");
  const KDAV::DavItem::List items = fetch.items();
  const double seconds = (Times::now() - start).wall;
  const double memory = Memory::now().peak - before;

  qsizetype bytes = 0;
  for (const KDAV::DavItem& item : items) bytes += item.data().size();
  std::printf("%lld %lld %f %f\n", static_cast<long long>(items.size()),
              static_cast<long long>(bytes), seconds, memory);
}
