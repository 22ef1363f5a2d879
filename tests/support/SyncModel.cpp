#include "tests/support/SyncModel.h"

#include <quillmere/calendars/KBTDavCalendar.h>
#include <quillmere/platform/base/makeObject.h>

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "tests/support/CalDavAnswers.h"
#include "tests/support/RecordingDelegate.h"
#include "tests/support/SessionHost.h"

namespace quillmere::testing {
namespace {

using Random = std::function<unsigned(unsigned)>;
using Names = std::vector<std::string>;

// A name, what it becomes on the wire, and how the server writes its address.
struct Name {
  const char* text;
  const char* wire;
  const char* href;
};
constexpr Name names[] = {
    {"a", "a", "/c/a.ics"},
    {"b@c", "b@c", "/c/b%40c.ics"},
    {"two words", "two%20words", "/c/two%20words.ics"},
    {"h\xC3\xBCt.1", "h%C3%BCt.1", "http://127.0.0.1/c/h%c3%bct.1.ics"},
    {"e", "e", "e.ics"},
};

const Name& nameOf(const std::string& text) {
  return *std::find_if(std::begin(names), std::end(names),
                       [&](const Name& name) { return name.text == text; });
}

const Name& nameOfHref(const std::string& href) {
  return *std::find_if(std::begin(names), std::end(names),
                       [&](const Name& name) { return name.href == href; });
}

void insertOnce(Names& set, const std::string& name) {
  if (std::find(set.begin(), set.end(), name) == set.end()) set.push_back(name);
}

// A calendar that shows the names it knows.
class OpenCalendar : public KBTDavCalendar {
 public:
  static std::shared_ptr<OpenCalendar> make(const std::shared_ptr<KBTDavConnection>& connection) {
    auto calendar = makeObject<OpenCalendar>(connection);
    connection->setDelegate(calendar);
    return calendar;
  }
  Names known() { return objectsByUniqueName().keys(); }
  using KBTDavCalendar::deleteSet, KBTDavCalendar::insertSet, KBTDavCalendar::updateSet;

 protected:
  using KBTDavCalendar::KBTDavCalendar;
};

// The server's resources, and what the calendar should make of them.
class Model {
 public:
  Model(ScriptedServer& server, const Random& random) : server_(server), random_(random) {}

  struct Known {
    std::string name;
    std::string version;
    std::string ics;
  };
  std::vector<Known> known;  // in the order in which they became so
  Names inserted, updated, deleted;
  std::optional<std::string> cTag;
  std::vector<std::string> log;
  bool isCalm = false;  // no more failures

  // Whether what is known is what the server has.
  bool isInStep() {
    return known.size() == resources_.size() &&
           std::all_of(resources_.begin(), resources_.end(), [&](const auto& entry) {
             const Known* object = find(nameOfHref(entry.first).text);
             return object && object->version == entry.second.etag;
           });
  }

  Known* find(const std::string& name) {
    const auto found = std::find_if(known.begin(), known.end(),
                                    [&](const Known& each) { return each.name == name; });
    return found == known.end() ? nullptr : &*found;
  }

  void putRemotely(const std::string& name, const std::string& text) {
    resources_[nameOf(name).href] = {newEtag(), text};
  }
  void deleteRemotely(const std::string& name) {
    if (resources_.erase(nameOf(name).href) > 0) ++tag_;
  }

  void startCheck() {
    if (!cTag) {
      log.emplace_back("checked none");
      return;
    }
    issue({Kind::check});
  }
  void startFetch() { issue({Kind::fetchTag}); }
  void startSave() {
    isSaving_ = true;
    for (const std::string& name : inserted) issue({Kind::insert, name, textOf(name)});
    for (const std::string& name : updated) issue({Kind::update, name, textOf(name)});
    for (const std::string& name : deleted) issue({Kind::remove, name});
    testForCompletion();
  }
  void finish() {
    while (!queue_.empty()) {
      const Request request = queue_.front();
      answer(request);
      queue_.pop_front();
    }
  }

 private:
  enum class Kind { check, fetchTag, listing, multiget, insert, update, remove, etagOf, savedTag };
  struct Request {
    Kind kind;
    std::string name{};
    std::string body{};
    std::vector<std::string> hrefs{};
    Kind write = Kind::insert;  // that the entity tag is for
  };
  struct Resource {
    std::string etag;
    std::string text;
  };

  std::string newEtag() { return "\"" + std::to_string(++tag_) + "\""; }
  std::string textOf(const std::string& name) {
    const Known* object = find(name);
    return object ? object->ics : "";
  }

  // A request is issued at the end of the queue, and seen by the server in its turn.
  void issue(Request request) { queue_.push_back(std::move(request)); }

  // A status other than success now and then; 0 for none.
  unsigned failure() {
    constexpr unsigned statuses[] = {500, 403, 404, 503};
    return !isCalm && random_(6) == 0 ? statuses[random_(4)] : 0;
  }
  static std::string failed(const std::string& what, unsigned status) {
    return what + " KBTDavConnection " + std::to_string(status);
  }

  void answer(const Request& request) {
    switch (request.kind) {
      case Kind::check:
      case Kind::fetchTag:
      case Kind::savedTag:
        return answerTag(request.kind);
      case Kind::listing:
        return answerListing();
      case Kind::multiget:
        return answerMultiget(request.hrefs);
      case Kind::insert:
      case Kind::update:
        return answerPut(request);
      case Kind::etagOf:
        return answerEtag(request);
      case Kind::remove:
        return answerDelete(request.name);
    }
  }

  void answerTag(Kind kind) {
    const unsigned status = kind == Kind::check ? 0 : failure();
    const bool isWithout = !isCalm && random_(16) == 0;
    const ExpectedRequest request{.method = "PROPFIND", .path = "/c/", .body = anyBody};
    if (status > 0) {
      server_.expect(request, {.status = status});
      if (kind == Kind::fetchTag) {
        log.push_back(failed("fetched", status));
      } else {
        saveFailed("KBTDavCalendar_FinishedSaving", status);
      }
      return;
    }
    const std::string text = std::to_string(tag_);
    server_.expect(request, isWithout ? multistatus(response("/c/", "")) : testing::tag(text));
    const std::optional<std::string> tag = isWithout ? std::nullopt : std::optional(text);
    if (kind == Kind::check) {
      log.emplace_back(tag == cTag ? "checked none" : "checked changes");
    } else if (kind == Kind::savedTag) {
      cTag = tag;
      completeSave();
    } else if (cTag && tag == cTag) {
      log.emplace_back("fetched");
    } else {
      cTag = tag;
      issue({Kind::listing});
    }
  }

  // What a 207 holds: everything, or now and then nothing of use. `seen` are the addresses told.
  std::string rowsOf(const std::vector<std::string>& hrefs, bool withText, Names& seen) {
    const unsigned fault = isCalm ? 2 : random_(24);
    if (fault == 0) return "<html><body><br></html>";
    if (fault == 1) return "";
    std::string rows = "<multistatus>";
    for (const std::string& href : hrefs) {
      const bool isThere = resources_.contains(href);
      if (!isThere || (!isCalm && random_(24) == 0)) {
        rows += "<response><href>" + href +
                "</href><status>HTTP/1.1 404 Not Found</status>"
                "</response>";
        continue;
      }
      const Resource& found = resources_.at(href);
      rows += resource(href, found.etag, withText ? found.text : "");
      seen.push_back(href);
    }
    std::sort(seen.begin(), seen.end());
    return rows + "</multistatus>";
  }

  void answerListing() {
    const ExpectedRequest request{.method = "REPORT", .path = "/c/", .body = anyBody};
    if (const unsigned status = failure()) {
      server_.expect(request, {.status = status});
      log.push_back(failed("fetched", status));
      return;
    }
    Names all, seen;
    for (const auto& [href, resource] : resources_) all.push_back(href);
    server_.expect(request, {.status = 207, .body = rowsOf(all, false, seen)});

    log.emplace_back("began");
    Names unseen;
    for (const Known& object : known) unseen.push_back(object.name);
    Names changed;
    for (const std::string& href : seen) {
      const std::string name = nameOfHref(href).text;
      const Known* object = find(name);
      if (!object || object->version != resources_.at(href).etag) changed.push_back(href);
      std::erase(unseen, name);
    }
    for (const std::string& name : unseen) {
      log.push_back("gone " + name);
      std::erase_if(known, [&](const Known& object) { return object.name == name; });
    }
    if (changed.empty()) {
      log.emplace_back("fetched");
    } else {
      issue({Kind::multiget, {}, {}, changed});
    }
  }

  void answerMultiget(const std::vector<std::string>& hrefs) {
    std::string body =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
        "<calendar-multiget xmlns=\"urn:ietf:params:xml:ns:caldav\"><prop xmlns=\"DAV:\">"
        "<getetag xmlns=\"DAV:\"/><calendar-data xmlns=\"urn:ietf:params:xml:ns:caldav\"/></prop>";
    for (const auto& href : hrefs) body.append("<href xmlns=\"DAV:\">").append(href + "</href>");
    const ExpectedRequest request{
        .method = "REPORT", .path = "/c/", .body = body + "</calendar-multiget>"};
    if (const unsigned status = failure()) {
      server_.expect(request, {.status = status});
      log.push_back(failed("fetched", status));
      return;
    }
    Names seen;
    server_.expect(request, {.status = 207, .body = rowsOf(hrefs, true, seen)});
    for (const std::string& href : seen) {
      const Name& name = nameOfHref(href);
      const std::string& etag = resources_.at(href).etag;
      Known* object = find(name.text);
      log.push_back((object ? "update " : "new ") + std::string(name.text) + " " + etag);
      if (object) {
        object->version = etag;
      } else {
        known.push_back({name.text, etag, ""});
      }
    }
    log.emplace_back("fetched");
  }

  void answerPut(const Request& request) {
    const Name& name = nameOf(request.name);
    const ExpectedRequest put{.method = "PUT",
                              .path = "/c/" + std::string(name.wire) + ".ics",
                              .fields = {{"Content-Type", "text/calendar"}},
                              .body = request.body,
                              .noOtherFields = true};
    const unsigned status = request.body.empty() ? 415 : failure();
    if (status > 0) {
      server_.expect(put, {.status = status});
      return saveFailed(request.name, status);
    }
    putRemotely(request.name, request.body);
    if (random_(4) == 0) {
      server_.expect(put, {.status = 201});
      return issue({Kind::etagOf, request.name, {}, {}, request.kind});
    }
    const std::string& etag = resources_.at(name.href).etag;
    server_.expect(put, {.status = 204, .fields = {{"ETag", etag}}});
    written(request.kind, request.name, etag);
  }

  // Of a write that told none. Meanwhile another may have deleted the resource.
  void answerEtag(const Request& request) {
    const Name& name = nameOf(request.name);
    const ExpectedRequest get{.path = "/c/" + std::string(name.wire) + ".ics"};
    const auto resource = resources_.find(name.href);
    const unsigned status = resource == resources_.end() ? 404 : failure();
    if (status > 0) {
      server_.expect(get, {.status = status});
      return saveFailed(request.name, status);
    }
    server_.expect(get, {.status = 200, .fields = {{"ETag", resource->second.etag}}});
    written(request.write, request.name, resource->second.etag);
  }

  void written(Kind kind, const std::string& name, const std::string& etag) {
    Known* object = find(name);
    if (object) object->version = etag;
    log.push_back((kind == Kind::insert ? "inserted " : "updated ") +
                  (object ? name : std::string("(null)")) + " " + etag);
    std::erase(kind == Kind::insert ? inserted : updated, name);
    testForCompletion();
  }

  void answerDelete(const std::string& name) {
    const ExpectedRequest request{.method = "DELETE",
                                  .path = "/c/" + std::string(nameOf(name).wire) + ".ics",
                                  .noOtherFields = true};
    const unsigned status = failure();
    server_.expect(request, {.status = status > 0 ? status : 204});
    if (status > 0 && status != 404) return saveFailed(name, status);
    if (status == 0) deleteRemotely(name);
    log.push_back("deleted " + (find(name) ? name : std::string("(null)")));
    std::erase(deleted, name);
    testForCompletion();
  }

  void saveFailed(const std::string& name, unsigned status) {
    log.push_back(failed("failed " + name, status));
    ++errors_;
    testForCompletion();
  }

  void testForCompletion() {
    const std::size_t pending = inserted.size() + updated.size() + deleted.size();
    if (!isSaving_ || errors_ < pending) return;
    if (errors_ > 0) return completeSave();
    issue({Kind::savedTag});
  }

  void completeSave() {
    isSaving_ = false;
    errors_ = 0;
    log.emplace_back("saved");
  }

  ScriptedServer& server_;
  const Random& random_;
  std::map<std::string, Resource> resources_;  // by href
  unsigned tag_ = 0;
  std::deque<Request> queue_;
  std::size_t errors_ = 0;
  bool isSaving_ = false;
};

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text.append(line).append("; ");
  return text;
}

// The calendar and the model, side by side.
class Walk {
 public:
  Walk(ScriptedServer& server, const Random& random)
      : server_(server), random_(random), model_(server, random) {
    const NSURL url = NSURL::URLWithString(server.url("/c/")).value();
    principal_ = KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
        nullptr, std::nullopt, std::nullopt, url);
    calendar_ =
        OpenCalendar::make(KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
            "Work", std::nullopt, url, principal_));
    calendar_->setDelegate(host_);
    host_->onCallback = [](const std::string&) { NSRunLoop::currentRunLoop().stop(); };
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;
  ~Walk() { principal_->invalidate(); }

  std::string run(unsigned steps) {
    std::string story;
    for (unsigned i = 0; i < steps; ++i) {
      story.append(takeStep()).append("; ");
      const std::string difference = compare();
      if (!difference.empty()) return story.append("\n").append(difference);
    }
    // A host that looks again at everything recovers from whatever went wrong.
    model_.isCalm = true;
    forgetTag();
    start(&Model::startFetch, &KBTDavCalendar::fetchExternalChanges);
    const std::string difference = compare();
    if (!difference.empty()) return story + "\n" + difference;
    return model_.isInStep() ? "" : story + "\nout of step in the end";
  }

 private:
  std::string takeStep() {
    const std::string name = names[random_(std::size(names))].text;
    const std::string text = "BEGIN:VEVENT\r\nX:" + std::to_string(++texts_) + "\r\nEND:VEVENT\r\n";
    constexpr const char* steps[] = {"remote put ",     "remote delete ", "insert ", "update ",
                                     "delete ",         "forget tag ",    "check ",  "save ",
                                     "fetch and save ", "fetch "};
    const unsigned step = random_(std::size(steps));
    if (step == 0) model_.putRemotely(name, text);
    if (step == 1) model_.deleteRemotely(name);
    if (step == 2) insert(name, text);
    if (step == 3) update(name, text);
    if (step == 4) remove(name);
    if (step == 5) forgetTag();
    if (step == 6) start(&Model::startCheck, &KBTDavCalendar::checkForExternalChanges);
    if (step >= 8) start(&Model::startFetch, &KBTDavCalendar::fetchExternalChanges);
    if (step == 7 || step == 8) start(&Model::startSave, &KBTDavCalendar::saveChanges);
    return steps[step] + name;
  }

  void forgetTag() {
    model_.cTag = std::nullopt;
    calendar_->setCachingString(std::nullopt);
  }

  void start(void (Model::*model)(), void (KBTDavCalendar::*calendar)()) {
    (model_.*model)();
    operations_.push_back(calendar);
  }

  void insert(const std::string& name, const std::string& text) {
    const auto item = Item::make(name, "", text);
    host_->objects[name] = item;
    calendar_->insertObject(item);
    if (auto* known = model_.find(name)) {
      *known = {name, "", text};
    } else {
      model_.known.push_back({name, "", text});
    }
    insertOnce(model_.inserted, name);
  }

  void update(const std::string& name, const std::string& text) {
    auto* known = model_.find(name);
    if (known) {
      host_->objects[name]->ics = text;
      known->ics = text;
    }
    calendar_->updateObject(known ? host_->objects[name] : Item::make(name));
    insertOnce(model_.updated, name);
  }

  // Also of an object that the calendar never held.
  void remove(const std::string& name) {
    calendar_->deleteObject(Item::make(name));
    insertOnce(model_.deleted, name);
  }

  std::string compare() {
    model_.finish();
    for (const auto operation : std::exchange(operations_, {})) ((*calendar_).*operation)();
    const std::vector<std::string> expected = std::exchange(model_.log, {});
    const bool isDone = runUntil(
        [&] { return host_->log.size() >= expected.size() || !server_.problems().empty(); });
    const std::vector<std::string> got = host_->take();
    if (!isDone || got != expected || calendar_->isChecking() || calendar_->isSaving()) {
      return "expected " + joined(expected) + "\ngot " + joined(got) + joined(server_.problems());
    }
    Names known;
    for (const auto& object : model_.known) known.push_back(object.name);
    if (calendar_->known() != known) return "known: " + joined(calendar_->known());
    for (const auto& [set, names] : {std::pair(&calendar_->insertSet(), &model_.inserted),
                                     std::pair(&calendar_->updateSet(), &model_.updated),
                                     std::pair(&calendar_->deleteSet(), &model_.deleted)}) {
      if (set->names() != *names) return "pending: " + joined(set->names());
    }
    if (calendar_->cachingString() != model_.cTag) return "caching string";
    return "";
  }

  ScriptedServer& server_;
  const Random& random_;
  Model model_;
  unsigned texts_ = 0;
  std::shared_ptr<RecordingDelegate> host_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<KBTDavPrincipal> principal_;
  std::shared_ptr<OpenCalendar> calendar_;
  std::vector<void (KBTDavCalendar::*)()> operations_;
};

}  // namespace

std::string differenceFromSyncModel(ScriptedServer& server, unsigned steps, const Random& random) {
  return Walk(server, random).run(steps);
}

}  // namespace quillmere::testing
