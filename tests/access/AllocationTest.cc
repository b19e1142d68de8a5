// How many heap allocations one synchronous pack hit costs. Every allocation of this test binary
// goes through the counting operator new below; a test counts those of its own thread between two
// points.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "base/Recycled.h"
#include "ferritcore/Access.h"
#include "tests/access/AccessFixture.h"

namespace {

thread_local bool gCounting = false;
thread_local size_t gAllocations = 0;

void* allocate(size_t size) {
    if (gCounting) ++gAllocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(size_t size) {
    return allocate(size);
}
void* operator new[](size_t size) {
    return allocate(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (gCounting) ++gAllocations;
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    if (gCounting) ++gAllocations;
    return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}

namespace FerritTest {
namespace {

// Counts the allocations of the calling thread while it lives.
class AllocationCount {
  public:
    AllocationCount() {
        gAllocations = 0;
        gCounting = true;
    }
    ~AllocationCount() { gCounting = false; }
    size_t value() const { return gAllocations; }
};

class AllocationTest : public AccessFixture {
  protected:
    void SetUp() override {
        AccessFixture::SetUp();
        MarlLogger::Log::setLevel(MarlLogger::MRLLevelWarning);  // a host's usual level
        const std::string body(16 * 1024, 'x');
        install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
        serveIndexes({{"app", tableOf({{"res/a.js", "https://h.com/app/a.js", body}})}});
        writeFile("apps/app/3/res/a.js", body);
    }
    // One synchronous hit, and the allocations it made (the response's destruction included).
    size_t hit(const ResourceRequest& request) {
        AllocationCount count;
        {
            auto response = Access::getResource(request);
            EXPECT_FALSE(response->error) << response->error.message();
            EXPECT_EQ(response->data.size(), 16u * 1024);
        }
        return count.value();
    }
};

TEST_F(AllocationTest, SyncHitOfSixteenKiBWithWarmIndexAllocatesLittle) {
    const ResourceRequest request("https://h.com/app/a.js", HeaderMap{{"Accept", "*/*"}});
    hit(request);  // loads the index
    TaskRunner::runDue();
    // A host that receives the records; what it does with them is its own cost.
    class DroppingProxy : public FakeProxy {
      public:
        void sendEvent(const PerfRecord&) override {}
    };
    Environment::instance().setProxy(std::make_shared<DroppingProxy>());
    const size_t withProxy = hit(request);
    Environment::instance().setProxy(nullptr);
    const size_t withoutProxy = hit(request);
    RecordProperty("allocations_with_proxy", static_cast<int>(withProxy));
    RecordProperty("allocations_without_proxy", static_cast<int>(withoutProxy));
    std::printf("allocations of one 16 KiB hit: %zu with a proxy, %zu without\n", withProxy,
                withoutProxy);
    // What a hit cannot do without: the body (1), the response (1), its MD5 text (1) and its
    // header map, whose five headers sit in one array (1) beside three values too long to sit
    // inside their strings (3); then the URL's key held by the part (1). The list of the
    // resource's parts sits in a block the thread recycles.
    // Sanitizer builds allocate afresh the five per-request blocks (context, resource, pack
    // match, part and the list of parts) that a normal build takes from the thread's recycled
    // blocks.
    constexpr size_t kRecycledObjects = 5;
    constexpr size_t kHitAllocations = 8 + (RecycledDetail::kRecycle ? 0 : kRecycledObjects);
    EXPECT_LE(withoutProxy, kHitAllocations);
    // The thread builds the hit's records again in place: a proxy costs the hit nothing more.
    EXPECT_LE(withProxy, kHitAllocations) << "the records of a hit allocate";
}

}  // namespace
}  // namespace FerritTest
