// The records that a request sends as it ends: "Ferrit.VisitPerf" of the request and one
// "Ferrit.AppVisit" per pack it visited. The request only notes numbers and pointers, in its
// thread's queue; the records, with their texts, are built and sent on the worker, in the order
// each thread noted them. The caller has checked that a proxy takes records.
#pragma once

#include <cstddef>
#include <string>

#include "ferritcore/Error.h"

namespace FerritCore {

class PackMatch;
struct AppVisit;

// What "Ferrit.VisitPerf" tells: how many parts, how they were read ("sync", or the group's
// type), and the request's times.
struct VisitPerf {
    size_t resourceCount = 0;
    std::string type;
    double matchTime = 0;
    double readTime = 0;
    double time = 0;
};

void queueVisitPerf(VisitPerf perf);
// The record of `visit` (whose error is copied) and of `match`. The queue keeps what the record
// tells of the match (its pack, name, configuration version and time), not the match itself: a
// match's block goes back to the thread that made it, for its next request.
void queueAppVisit(const PackMatch& match, const AppVisit& visit);

// Builds and sends every record noted so far, on the calling thread: what the worker does after
// records were noted. Returns how many were sent.
size_t sendQueuedVisits();

}  // namespace FerritCore
