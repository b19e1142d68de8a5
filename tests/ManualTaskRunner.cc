// Every unit-test binary that links the core drives the process's task runner by hand: its tasks
// run only inside TaskRunner::runDue(), on the test's thread, under the test's clock. Tests that
// need the real worker make a runner of their own.
#include "runtime/TaskRunner.h"

namespace {

const bool kManualRunner =
    FerritCore::TaskRunner::setSharedMode(FerritCore::TaskRunner::Mode::Manual);

}  // namespace
