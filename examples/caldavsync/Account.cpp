#include "Account.h"

#include <quillmere/platform/base/CFUUID.h>
#include <quillmere/platform/loop/NSRunLoop.h>

#include <any>
#include <utility>

#include "common/Program.h"

namespace caldavsync {

using quillmere::KBTDavConnection;
using quillmere::KBTDavPrincipal;
using quillmere::NSErrorPtr;
using quillmere::NSRunLoop;

// Keeps how the operation under way has ended.
class Account::Outcome : public quillmere::KBTDavPrincipalDelegateBase {
 public:
  bool isOver = false;
  NSErrorPtr error;

  void calDavPrincipal_loggedInWithError(KBTDavPrincipal&, const NSErrorPtr& failure) override {
    end(failure);
  }
  void calDavPrincipal_createdCalendar(KBTDavPrincipal&, const ConnectionPtr&) override {
    end(nullptr);
  }

 private:
  void end(const NSErrorPtr& failure) {
    error = failure;
    isOver = true;
    NSRunLoop::currentRunLoop().stop();
  }
};

Account::Account(const quillmere::NSURL& server, std::optional<std::string> user,
                 std::optional<std::string> password)
    : outcome_(std::make_shared<Outcome>()),
      principal_(KBTDavPrincipal::initWithDelegate_username_andPassword_forServer(
          outcome_, std::move(user), std::move(password), server)) {}

void Account::waitForEnd() {
  while (!outcome_->isOver) NSRunLoop::currentRunLoop().run();
  outcome_->isOver = false;
  if (outcome_->error) throw examples::Failure(examples::textOf(*outcome_->error));
}

void Account::login() {
  principal_->login();
  waitForEnd();
}

// The path is nothing that could be taken. What the server made of it, another login tells.
void Account::createCalendar(const std::string& name) {
  if (principal_->calendarNamed(name)) return;
  principal_->createCalendarAtPath_withName_andDescription(quillmere::CFUUIDCreateString(), name,
                                                           "");
  waitForEnd();
  login();
}

ConnectionPtr Account::secondConnection(const KBTDavConnection& first) const {
  return KBTDavConnection::initWithCalendarName_description_URL_forPrincipal(
      first.name(), first.description(), first.URL(), principal_);
}

}  // namespace caldavsync
