#include "runtime/WorkerCheck.h"

#include "runtime/TaskRunner.h"

namespace FerritCore {

bool isOnWorker() {
    return TaskRunner::shared().isWorkerContext();
}

}  // namespace FerritCore
