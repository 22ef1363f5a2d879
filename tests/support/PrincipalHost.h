#ifndef QUILLMERE_TESTS_SUPPORT_PRINCIPALHOST_H
#define QUILLMERE_TESTS_SUPPORT_PRINCIPALHOST_H

#include <quillmere/caldav/KBTDavConnection.h>
#include <quillmere/caldav/KBTDavPrincipal.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quillmere::testing {

/// Writes down what a principal tells, a line for each call.
class PrincipalHost : public KBTDavPrincipalDelegate {
 public:
  std::vector<std::string> events;
  NSErrorPtr error;
  std::function<void()> onEvent = [] {};

  void calDavPrincipal_loggedInWithError(KBTDavPrincipal&, const NSErrorPtr& failure) override {
    error = failure;
    note(!failure ? "logged in"
                  : "failed " + failure->domain() + " " + std::to_string(failure->code()) + " " +
                        failure->localizedDescription());
  }
  void calDavPrincipal_didReceiveFreebusy_withContext(
      KBTDavPrincipal&, const std::vector<std::shared_ptr<KBTFreeBusy>>& received,
      const std::any& context) override {
    note("freebusy " + std::to_string(received.size()) + " [" + textOf(context) + "]");
  }
  void calDavPrincipal_foundPrincipalInfo_withContext(
      KBTDavPrincipal&, const std::vector<std::shared_ptr<KBTPrincipalInfo>>& found,
      const std::any& context) override {
    std::string line = "found [" + textOf(context) + "]";
    for (const auto& info : found) {
      const auto url = info->principalURL();
      line += " {" + (url ? url->path() : "-") + ", " + info->name().value_or("-") + ", " +
              info->email().value_or("-") + ", " + info->urn().value_or("-") + "}";
    }
    note(line);
  }
  void calDavPrincipal_createdCalendar(KBTDavPrincipal&,
                                       const std::shared_ptr<KBTDavConnection>& calendar) override {
    note("created " + calendar->name().value_or("-") + " " + calendar->URL().path());
  }

 private:
  static std::string textOf(const std::any& context) {
    const auto* text = std::any_cast<const char*>(&context);
    return text ? *text : "";
  }
  void note(std::string event) {
    events.push_back(std::move(event));
    onEvent();
  }
};

}  // namespace quillmere::testing

#endif
