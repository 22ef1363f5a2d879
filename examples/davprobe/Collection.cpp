#include "Collection.h"

#include <quillmere/platform/loop/NSRunLoop.h>

#include <string_view>
#include <utility>

#include "common/Program.h"
#include "common/ResourceName.h"

namespace davprobe {
namespace {

using examples::Failure;
using examples::resourceName;
using quillmere::KBTDavConnection;
using quillmere::KBTDavResourceContents;
using quillmere::KBTDavResourceTexts;
using quillmere::NSErrorPtr;
using quillmere::NSRunLoop;
using quillmere::NSURL;

constexpr std::string_view extension = ".ics";

std::string nameOf(const std::string& address) {
  const auto url = NSURL::URLWithString(address);
  std::string name = examples::percentDecoded(url ? url->lastPathComponent() : address);
  if (name.ends_with(extension)) name.resize(name.size() - extension.size());
  return name;
}

}  // namespace

// Keeps what the operation under way came to, and ends the wait for it.
class Collection::Outcome : public quillmere::KBTDavConnectionDelegate {
 public:
  NSErrorPtr error;
  std::optional<std::string> tag;  // of the collection or of the resource written
  KBTDavResourceTexts etags;
  KBTDavResourceContents contents;

  void calDavConnection_didReceiveCTag_context(KBTDavConnection&,
                                               const std::optional<std::string>& ctag,
                                               const std::any&) override {
    tag = ctag;
    end();
  }
  void calDavConnection_requestDidFail_context(KBTDavConnection&, const NSErrorPtr& failure,
                                               const std::any&) override {
    error = failure;
    end();
  }
  void calDavConnection_didReceiveFreebusy_context(
      KBTDavConnection&, const std::vector<std::shared_ptr<quillmere::KBTFreeBusy>>&,
      const std::any&) override {
    end();
  }
  void calDavConnection_didReceiveEventsWithETags_andContents_context(
      KBTDavConnection&, const KBTDavResourceTexts& tags, const KBTDavResourceContents& texts,
      const std::any&) override {
    etags = tags;
    contents = texts;
    end();
  }
  void calDavConnection_didCreateResourceWithETag_context(KBTDavConnection&,
                                                          const std::string& etag,
                                                          const std::any&) override {
    tag = etag;
    end();
  }
  void calDavConnection_didUpdateResourceWithETag_context(KBTDavConnection&,
                                                          const std::string& etag,
                                                          const std::any&) override {
    tag = etag;
    end();
  }
  void calDavConnectionDidDeleteResource_context(KBTDavConnection&, const std::any&) override {
    end();
  }
  void calDavConnectionDidRemoveCalendar(KBTDavConnection&) override { end(); }

 private:
  static void end() { NSRunLoop::currentRunLoop().stop(); }
};

Collection::Collection(const NSURL& url, std::optional<std::string> user,
                       std::optional<std::string> password)
    : principal_(quillmere::KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
          nullptr, std::move(user), std::move(password), url)),
      connection_(KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
          std::nullopt, std::nullopt, url, principal_)),
      outcome_(std::make_shared<Outcome>()) {
  connection_->setDelegate(outcome_);
}

Collection::Outcome& Collection::waitFor(const std::function<void(KBTDavConnection&)>& start) {
  start(*connection_);
  NSRunLoop::currentRunLoop().run();
  if (const auto error = std::exchange(outcome_->error, nullptr)) {
    throw Failure(examples::textOf(*error));
  }
  return *outcome_;
}

std::optional<std::string> Collection::tag() {
  return waitFor([](KBTDavConnection& connection) { connection.reportCTagWithContext({}); }).tag;
}

Resources Collection::resources(bool withContents) {
  Resources found;
  for (const bool events : {true, false}) {
    const Outcome& outcome = waitFor([=](KBTDavConnection& connection) {
      connection.reportEvents_includingContents_fromDate_toDate_context(
          events, withContents, std::nullopt, std::nullopt, {});
    });
    for (const auto& [address, etag] : outcome.etags) {
      const auto text = outcome.contents.find(address);
      const std::size_t size = text == outcome.contents.end() ? 0 : text->second.length();
      found[nameOf(address)] = {address, etag, size};
    }
  }
  return found;
}

std::string Collection::textOf(const std::string& name) {
  const Resources known = resources(false);
  const auto resource = known.find(name);
  if (resource == known.end()) throw Failure("there is no resource \"" + name + "\"");
  const Outcome& outcome = waitFor([&](KBTDavConnection& connection) {
    connection.multigetEventsForAddresses_context({resource->second.address}, {});
  });
  if (outcome.contents.empty()) throw Failure("the server gave no text of \"" + name + "\"");
  return std::string(outcome.contents.begin()->second.view());
}

std::string Collection::put(const std::string& name, const quillmere::NSData& text) {
  const Outcome& outcome = waitFor([&](KBTDavConnection& connection) {
    connection.createResource_withName_allowOverwrite_context(text, resourceName(name), true, {});
  });
  return outcome.tag.value();
}

void Collection::remove(const std::string& name) {
  waitFor([&](KBTDavConnection& connection) {
    connection.deleteResourceWithName_andETag_context(resourceName(name), std::nullopt, {});
  });
}

}  // namespace davprobe
