#ifndef QUILLMERE_TESTS_SUPPORT_COLLECTIONHOST_H
#define QUILLMERE_TESTS_SUPPORT_COLLECTIONHOST_H

#include <quillmere/caldav/KBTDavConnection.h>

#include <functional>
#include <string>
#include <vector>

namespace quillmere::testing {

/// Writes down what a collection tells, a line for each call that ends with its context.
class CollectionHost : public KBTDavConnectionDelegate {
 public:
  std::vector<std::string> events;
  NSErrorPtr error;
  KBTDavResourceTexts etags, contents;
  std::function<void()> onEvent = [] {};

  void calDavConnection_didReceiveCTag_context(KBTDavConnection&,
                                               const std::optional<std::string>& ctag,
                                               const std::any& context) override {
    note("ctag " + ctag.value_or("(null)"), context);
  }
  void calDavConnection_requestDidFail_context(KBTDavConnection&, const NSErrorPtr& failure,
                                               const std::any& context) override {
    error = failure;
    note("failed " + failure->domain() + " " + std::to_string(failure->code()), context);
  }
  void calDavConnection_didReceiveFreebusy_context(
      KBTDavConnection&, const std::vector<std::shared_ptr<KBTFreeBusy>>& periods,
      const std::any& context) override {
    note("freebusy " + std::to_string(periods.size()), context);
  }
  void calDavConnection_didReceiveEventsWithETags_andContents_context(
      KBTDavConnection&, const KBTDavResourceTexts& tags, const KBTDavResourceContents& data,
      const std::any& context) override {
    etags = tags;
    contents.clear();
    for (const auto& [address, content] : data) contents[address] = content.view();
    std::string text = "events";
    for (const auto& [address, tag] : tags)
      text.append(" ").append(address).append("=").append(tag);
    for (const auto& [address, content] : contents) {
      text.append(" ").append(address).append(":").append(content);
    }
    note(text, context);
  }
  void calDavConnection_didCreateResourceWithETag_context(KBTDavConnection&,
                                                          const std::string& etag,
                                                          const std::any& context) override {
    note("created " + etag, context);
  }
  void calDavConnection_didUpdateResourceWithETag_context(KBTDavConnection&,
                                                          const std::string& etag,
                                                          const std::any& context) override {
    note("updated " + etag, context);
  }
  void calDavConnectionDidDeleteResource_context(KBTDavConnection&,
                                                 const std::any& context) override {
    note("deleted", context);
  }
  void calDavConnectionDidRemoveCalendar(KBTDavConnection&) override { note("removed", {}); }

 private:
  void note(const std::string& event, const std::any& context) {
    const auto* text = std::any_cast<const char*>(&context);
    events.push_back(event + " [" + (text ? *text : "") + "]");
    onEvent();
  }
};

}  // namespace quillmere::testing

#endif
