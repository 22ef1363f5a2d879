#include <quillmere/platform/base/KSDiagnostics.h>
#include <quillmere/recurrence/KBTCalRepetitionEnd.h>

namespace quillmere {

std::shared_ptr<KBTCalRepetitionEnd> KBTCalRepetitionEnd::init() { KSRejectUnusedImplementation(); }

}  // namespace quillmere
