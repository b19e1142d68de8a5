#include "access/VisitRecords.h"

#include <atomic>
#include <optional>
#include <utility>

#include "access/PackPart.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "runtime/TaskRunner.h"
#include "runtime/ThreadQueues.h"

namespace FerritCore {
namespace {

// One noted record: an AppVisit when `isAppVisit`, a VisitPerf otherwise. Plain values, the
// pack's counted pointer and the short texts the match already holds, so that noting one builds
// no text.
struct Noted {
    bool isAppVisit = false;
    PackPtr pack;
    std::string name;  // the match's, when there is no pack
    std::string configVersion;
    double matchTime = 0;
    VisitPerf perf;
    UpdateTrigger trigger = kTriggerNone;
    const char* visitType = "";
    Error error;
    double time = 0;
    std::optional<double> readFileTime;
    double accessCount = 0;
};

struct State {
    ThreadQueues<Noted> queues;
    // The one task that sends what was noted (see TaskRunner::postOnce).
    std::atomic<TaskId> sendTask{0};
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        // What a test left noted belongs to its proxy, not to the next test's.
        s.queues.dropAll();
        s.sendTask.store(0, std::memory_order_release);
    });
    return *instance;
}

void send(Noted&& noted) {
    if (noted.isAppVisit) {
        PackMatch match(std::move(noted.name), Error());
        match.pack = std::move(noted.pack);
        match.configVersion = std::move(noted.configVersion);
        match.matchTime = noted.matchTime;
        AppVisit visit;
        visit.trigger = noted.trigger;
        visit.visitType = noted.visitType;
        visit.error = &noted.error;
        visit.time = noted.time;
        visit.readFileTime = noted.readFileTime;
        visit.accessCount = noted.accessCount;
        sendAppVisit(match, visit);
        return;
    }
    PerfRecord record("Ferrit.VisitPerf");
    record.setDimension("resourceCount", std::to_string(noted.perf.resourceCount));
    record.setDimension("type", std::move(noted.perf.type));
    record.setMeasure("matchTime", noted.perf.matchTime);
    record.setMeasure("readTime", noted.perf.readTime);
    record.setMeasure("time", noted.perf.time);
    sendEvent(record);
}

void note(Noted noted) {
    State& s = state();
    s.queues.push(std::move(noted));
    // Orders the entry's store before the look at the task, as the task's start orders its reset
    // of the holder before its look at the queues: one of the two sees the other, so an entry is
    // never left without a task to send it.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (s.sendTask.load(std::memory_order_relaxed) != 0) return;
    TaskRunner::postOnce(
        s.sendTask,
        [] {
            std::atomic_thread_fence(std::memory_order_seq_cst);
            sendQueuedVisits();
        },
        0);
}

}  // namespace

void queueVisitPerf(VisitPerf perf) {
    Noted noted;
    noted.perf = std::move(perf);
    note(std::move(noted));
}

void queueAppVisit(const PackMatch& match, const AppVisit& visit) {
    Noted noted;
    noted.isAppVisit = true;
    noted.pack = match.pack;
    if (!match.pack) noted.name = match.name;
    noted.configVersion = match.configVersion;
    noted.matchTime = match.matchTime;
    noted.trigger = visit.trigger;
    noted.visitType = visit.visitType;
    if (visit.error != nullptr) noted.error = *visit.error;
    noted.time = visit.time;
    noted.readFileTime = visit.readFileTime;
    noted.accessCount = visit.accessCount;
    note(std::move(noted));
}

size_t sendQueuedVisits() {
    return state().queues.drain([](Noted&& noted) { send(std::move(noted)); });
}

}  // namespace FerritCore
