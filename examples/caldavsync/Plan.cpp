#include "Plan.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "common/Hash.h"
#include "common/Program.h"
#include "common/ResourceName.h"

namespace caldavsync {
namespace {

using examples::Failure;
using examples::hashOf;
using examples::percentDecoded;
using quillmere::KBTCalObject;
using quillmere::NSData;

constexpr const char* extension = ".ics";

// Of the first event or to-do; null when there is none.
std::optional<Kind> kindOf(const std::string& text) {
  const auto reader = KBTCalObject::initWithData(NSData::dataWithBytes(text));
  while (reader->nextLine()) {
    if (reader->key() != "BEGIN") continue;
    if (reader->value() == "VEVENT") return Kind::event;
    if (reader->value() == "VTODO") return Kind::toDo;
  }
  return std::nullopt;
}

class Planner {
 public:
  Planner(const Calendar& calendar, const Fetched& fetched, const Folder& folder)
      : calendar_(calendar), fetched_(fetched), folder_(folder), files_(folder.files()) {
    for (const ObjectPtr& object : fetched.deletions) {
      deleted_.insert(object->name);
      deletedAs_[percentDecoded(object->name)] = object.get();
    }
    for (const auto& [name, object] : calendar.objects) takenFiles_.insert(object->file);
    for (const std::string& file : takenFiles_) takenFolded_.insert(foldedCase(file));
  }

  Plan make(bool allowsEmptying) {
    if (!allowsEmptying) refuseToEmpty();
    for (const Arrival& arrival : fetched_.arrivals) planArrival(arrival);
    for (const auto& entry : calendar_.objects) attempt([&] { planUnfetched(*entry.second); });
    for (const std::string& file : files_) {
      if (!takenFiles_.contains(file)) attempt([&] { planNewFile(file); });
    }
    for (const auto& [hash, object] : missing_) add(Action::sendDeleted, *object);
    return std::move(plan_);
  }

 private:
  template <class Work>
  void attempt(const Work& work) {
    try {
      work();
    } catch (const Failure& failure) {
      plan_.problems.emplace_back(failure.what());
    }
  }

  Step& add(Action action, Object object) {
    planned_.insert(object.name);
    return plan_.steps.emplace_back(Step{action, std::move(object), {}});
  }

  void refuseToEmpty() const {
    const std::size_t known = calendar_.objects.size();
    const auto isHere = [this](const auto& entry) { return files_.contains(entry.second->file); };
    if (files_.empty() && deleted_.size() < known) {
      throw Failure(
          "the folder is empty, and the server would be emptied. Nothing is done without "
          "--allow-emptying");
    }
    if (known > 0 && deleted_.size() == known && fetched_.arrivals.empty() &&
        std::any_of(calendar_.objects.begin(), calendar_.objects.end(), isHere)) {
      throw Failure(
          "the server has nothing any more, and the folder would be emptied. Nothing is "
          "done without --allow-emptying");
    }
  }

  void planArrival(const Arrival& arrival) {
    const Object* const known = knownAs(arrival.name);
    // An object of two kinds belongs to the first that had it.
    const bool isOthers = known && known->kind != arrival.kind && !deleted_.contains(known->name);
    if (isOthers || planned_.contains(arrival.name)) return;
    planned_.insert(arrival.name);
    if (known && known->name != arrival.name) add(Action::noteGone, *known);
    attempt([&] { receive(arrival, known); });
  }

  // Null for what is new. A server may write the escapes in a name otherwise than it was given them.
  const Object* knownAs(const std::string& name) const {
    const auto found = calendar_.objects.find(name);
    if (found != calendar_.objects.end()) return found->second.get();
    const auto same = deletedAs_.find(percentDecoded(name));
    const bool isSame = same != deletedAs_.end() && !planned_.contains(same->second->name);
    return isSame ? same->second : nullptr;
  }

  void receive(const Arrival& arrival, const Object* known) {
    if (arrival.text.empty()) throw Failure(arrival.name + ": came without a text");
    const std::string file = known ? known->file : newFile(arrival.name);
    const auto here = folder_.read(file);
    Object object{arrival.kind, arrival.name, file, arrival.etag, hashOf(arrival.text)};
    if (here && withCRLF(*here) == arrival.text) {
      object.hash = hashOf(*here);
      add(Action::noteInStep, std::move(object));
      return;
    }
    const bool isEdited = here && (!known || hashOf(*here) != known->hash);
    Step& step = add(known ? Action::receiveChanged : Action::receiveNew, std::move(object));
    step.text = arrival.text;
    step.isConflict = isEdited || (known && !here);
    step.setsFileAside = isEdited;
  }

  std::string newFile(const std::string& name) {
    std::string file = fileNameLike(percentDecoded(name), extension, takenFolded_);
    takenFiles_.insert(file);
    takenFolded_.insert(foldedCase(file));
    return file;
  }

  void planUnfetched(const Object& known) {
    if (planned_.contains(known.name)) return;
    deleted_.contains(known.name) ? planDeletion(known) : planKnown(known);
  }

  void planDeletion(const Object& known) {
    const auto here = folder_.read(known.file);
    Step& step = add(here ? Action::receiveDeleted : Action::noteGone, known);
    step.isConflict = step.setsFileAside = here && hashOf(*here) != known.hash;
  }

  void planKnown(const Object& known) {
    auto here = folder_.read(known.file);
    if (!here) {
      missing_.emplace(known.hash, &known);
    } else if (hashOf(*here) != known.hash) {
      Step& step = add(Action::sendChanged, known);
      step.object.hash = hashOf(*here);
      step.text = std::move(*here);
    }
  }

  void planNewFile(const std::string& file) {
    auto here = folder_.read(file);
    if (!here) return;  // it has gone meanwhile
    const std::uint64_t hash = hashOf(*here);
    const auto renamed = missing_.find(hash);
    if (renamed != missing_.end()) {
      add(Action::noteRenamed, *renamed->second).object.file = file;
      missing_.erase(renamed);
      return;
    }
    const auto kind = kindOf(*here);
    if (!kind) throw Failure(file + ": holds neither an event nor a to-do");
    add(Action::sendNew, {*kind, newName(file), file, {}, hash}).text = std::move(*here);
  }

  // A name that no other object has. Servers write "?" and ":" back without escape, and then the
  // object would seem to be another.
  std::string newName(const std::string& file) const {
    std::string stem = file.substr(0, file.rfind(extension));
    std::replace_if(
        stem.begin(), stem.end(), [](char c) { return c == '?' || c == ':'; }, '_');
    std::string name = examples::resourceName(stem);
    for (int i = 2; planned_.contains(name) || calendar_.objects.contains(name); ++i) {
      name = examples::resourceName(stem + "-" + std::to_string(i));
    }
    return name;
  }

  const Calendar& calendar_;
  const Fetched& fetched_;
  const Folder& folder_;
  const std::set<std::string> files_;
  std::set<std::string> deleted_;                        // names, at the server
  std::map<std::string, const Object*> deletedAs_;       // the same, by name without escapes
  std::set<std::string> planned_;                        // names
  std::set<std::string> takenFiles_;                     // by what is known or arrives
  std::set<std::string> takenFolded_;                    // the same
  std::multimap<std::uint64_t, const Object*> missing_;  // here, by hash
  Plan plan_;
};

}  // namespace

Plan makePlan(const Calendar& calendar, const Fetched& fetched, const Folder& folder,
              bool allowsEmptying) {
  return Planner(calendar, fetched, folder).make(allowsEmptying);
}

}  // namespace caldavsync
