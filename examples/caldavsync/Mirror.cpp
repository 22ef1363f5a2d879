#include "Mirror.h"

#include <algorithm>
#include <functional>
#include <map>
#include <utility>

#include "common/Program.h"

namespace caldavsync {
namespace {

using quillmere::NSErrorPtr;

bool isSent(const Step& step) {
  return step.action == Action::sendNew || step.action == Action::sendChanged ||
         step.action == Action::sendDeleted;
}

}  // namespace

void Mirror::run(bool allowsEmptying, bool isDryRun) {
  Fetched fetched;
  for (const auto& remote : remotes_) remote->fetch(fetched);
  const Plan plan = makePlan(calendar_, fetched, folder_, allowsEmptying);
  for (const std::string& problem : plan.problems) report_.problem(problem);
  if (isDryRun) {
    for (const Step& step : plan.steps) report_.done(step);
    return;
  }
  folder_.make();
  apply(plan);
  takeCachingStrings();
  keepState_();
  send(plan);
  keepState_();
}

void Mirror::apply(const Plan& plan) {
  std::size_t done = 0;
  const auto all = std::count_if(plan.steps.begin(), plan.steps.end(), std::not_fn(isSent));
  for (const Step& step : plan.steps) {
    if (isSent(step)) continue;
    try {
      applyHere(step);
    } catch (const examples::Failure& failure) {
      report_.problem(failure.what());
    }
    report_.progress("receiving", ++done, static_cast<std::size_t>(all));
  }
}

void Mirror::applyHere(const Step& step) {
  const Object& object = step.object;
  const std::string setAside = step.setsFileAside ? folder_.setAside(object.file) : "";
  if (step.action == Action::receiveDeleted) {
    if (!step.setsFileAside) folder_.remove(object.file);
  } else if (step.action == Action::receiveNew || step.action == Action::receiveChanged) {
    folder_.write(object.file, step.text);
  }
  if (step.action == Action::receiveDeleted || step.action == Action::noteGone) {
    calendar_.objects.erase(object.name);
  } else {
    calendar_.objects[object.name] = std::make_shared<Object>(object);
  }
  report_.done(step, setAside);
}

// Those of the fetch, not those after what is sent, which would hide what others do meanwhile. They
// say that all before is here, so where something failed there are none.
void Mirror::takeCachingStrings() {
  calendar_.cachingStrings.clear();
  if (report_.hasProblems()) return;
  for (const auto& remote : remotes_) {
    if (auto text = remote->cachingString()) calendar_.cachingStrings[remote->kind()] = *text;
  }
}

Remote* Mirror::remoteOf(Kind kind) const {
  const auto found = std::find_if(remotes_.begin(), remotes_.end(),
                                  [=](const auto& remote) { return remote->kind() == kind; });
  return found == remotes_.end() ? nullptr : found->get();
}

void Mirror::send(const Plan& plan) {
  std::map<std::string, const Step*> steps;
  for (const Step& step : plan.steps) {
    if (!isSent(step)) continue;
    const Object& object = step.object;
    Remote* const remote = remoteOf(object.kind);
    if (!remote) {
      report_.problem(object.file + ": the calendar holds no " +
                      (object.kind == Kind::event ? "events" : "to-dos"));
      continue;
    }
    steps[object.name] = &step;
    if (step.action == Action::sendNew) remote->insert(object, withCRLF(step.text));
    if (step.action == Action::sendChanged) remote->update(object, withCRLF(step.text));
    if (step.action == Action::sendDeleted) remote->remove(object);
  }
  std::size_t done = 0;
  for (const auto& remote : remotes_) {
    remote->send([&](const std::string& name, const std::string& etag, const NSErrorPtr& error) {
      const auto found = steps.find(name);
      if (found == steps.end()) return;
      report_.progress("sending", ++done, steps.size());
      if (error)
        return report_.problem(found->second->object.file + ": " + examples::textOf(*error));
      noteSent(*found->second, etag);
    });
  }
}

void Mirror::noteSent(const Step& step, const std::string& etag) {
  if (step.action == Action::sendDeleted) {
    calendar_.objects.erase(step.object.name);
  } else {
    const auto object = std::make_shared<Object>(step.object);
    object->etag = etag;
    calendar_.objects[object->name] = object;
  }
  report_.done(step);
}

}  // namespace caldavsync
