#ifndef CALDAVSYNC_MIRROR_H
#define CALDAVSYNC_MIRROR_H

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Folder.h"
#include "Plan.h"
#include "Remote.h"
#include "Report.h"
#include "State.h"

namespace caldavsync {

/// One calendar and its folder, which `run` brings in step.
class Mirror {
 public:
  /// `remotes` are the kinds of objects that the calendar holds, `keepState` writes down what has
  /// become of `calendar` so far.
  Mirror(Calendar& calendar, std::vector<std::shared_ptr<Remote>> remotes,
         const std::filesystem::path& folder, Report& report, std::function<void()> keepState)
      : calendar_(calendar),
        remotes_(std::move(remotes)),
        folder_(folder),
        report_(report),
        keepState_(std::move(keepState)) {}

  /// Single objects that fail are reported, and tried again by the next run. Throws
  /// examples::Failure when nothing could be done.
  void run(bool allowsEmptying, bool isDryRun);

 private:
  void apply(const Plan& plan);
  void applyHere(const Step& step);
  void takeCachingStrings();
  void send(const Plan& plan);
  void noteSent(const Step& step, const std::string& etag);
  Remote* remoteOf(Kind kind) const;

  Calendar& calendar_;
  std::vector<std::shared_ptr<Remote>> remotes_;
  Folder folder_;
  Report& report_;
  std::function<void()> keepState_;
};

}  // namespace caldavsync

#endif
