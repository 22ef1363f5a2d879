#ifndef QUILLMERE_TESTS_SUPPORT_SYNCMODEL_H
#define QUILLMERE_TESTS_SUPPORT_SYNCMODEL_H

#include <functional>
#include <string>

#include "tests/support/ScriptedServer.h"

namespace quillmere::testing {

/// Takes a calendar in a collection through a random sequence of changes on either side, fetches,
/// checks and saves, with failures among the requests, and compares each step with a plain model of
/// what a calendar does: its requests, its callbacks, what it knows and what it keeps pending.
///
/// `random(n)` is a number below `n`. The result is empty, or tells the first difference.
std::string differenceFromSyncModel(ScriptedServer& server, unsigned steps,
                                    const std::function<unsigned(unsigned)>& random);

}  // namespace quillmere::testing

#endif
