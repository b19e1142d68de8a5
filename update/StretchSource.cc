#include "update/StretchSource.h"

#include <random>
#include <utility>

#include "base/ProcessState.h"
#include "support/Mutex.h"

namespace FerritCore {

namespace {

struct RandomState {
    Mutex mutex;
    StretchSource::Source source GUARDED_BY(mutex);
    std::mt19937_64 generator GUARDED_BY(mutex){std::random_device{}()};
};

RandomState& randomState() {
    static RandomState* const state = ProcessState::create<RandomState>([](RandomState& s) {
        MutexLock lock(s.mutex);
        s.source = nullptr;
    });
    return *state;
}

}  // namespace

uint64_t StretchSource::draw(uint64_t maxInclusive) {
    RandomState& state = randomState();
    Source source;
    {
        MutexLock lock(state.mutex);
        if (!state.source) {
            return std::uniform_int_distribution<uint64_t>(0, maxInclusive)(state.generator);
        }
        source = state.source;
    }
    return source(maxInclusive);
}

void StretchSource::set(Source source) {
    RandomState& state = randomState();
    MutexLock lock(state.mutex);
    state.source = std::move(source);
}

}  // namespace FerritCore
