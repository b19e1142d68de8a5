// Host threads read at once while the configuration is republished and the proxy is swapped: the
// per-thread snapshots and recycled request objects must never hand one thread's state to another.
// Run under TSan by scripts/test.sh.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ferritcore/Access.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {
namespace {

constexpr int kReaders = 4;
constexpr int kFilesPerReader = 8;
constexpr int kReadsPerThread = 300;
constexpr int kRepublications = 60;

class ConcurrentReadTest : public AccessFixture {
  protected:
    void SetUp() override {
        AccessFixture::SetUp();
        MarlLogger::Log::setLevel(MarlLogger::MRLLevelWarning);
        install({pack("app", kPackTypeFerrit, 3, 3, {"https://h.com/app/"})});
        std::vector<std::tuple<std::string, std::string, std::string>> files;
        for (int r = 0; r < kReaders; ++r) {
            for (int f = 0; f < kFilesPerReader; ++f) {
                const std::string name = "r" + std::to_string(r) + "_" + std::to_string(f) + ".js";
                // Each body differs in size and content, so a body handed to the wrong request
                // cannot pass for the right one.
                const std::string body(static_cast<size_t>(512 + 97 * (r * kFilesPerReader + f)),
                                       static_cast<char>('a' + (r * kFilesPerReader + f) % 26));
                files.emplace_back("res/" + name, "https://h.com/app/" + name, body);
                writeFile("apps/app/3/res/" + name, body);
                bodies_[r].push_back(body);
                urls_[r].push_back("https://h.com/app/" + name);
            }
        }
        serveIndexes({{"app", tableOf(files)}});
    }
    std::vector<std::string> bodies_[kReaders];
    std::vector<std::string> urls_[kReaders];
};

TEST_F(ConcurrentReadTest, ReadersGetTheirOwnBytesWhileTheConfigurationAndProxyChange) {
    // The index is loaded once before the threads start, as after a pack's first request.
    ASSERT_FALSE(Access::getResource(ResourceRequest(urls_[0][0], HeaderMap{}))->error);
    std::atomic<int> wrong{0};
    std::atomic<int> failed{0};
    std::atomic<bool> start{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&, r] {
            while (!start.load()) std::this_thread::yield();
            for (int i = 0; i < kReadsPerThread; ++i) {
                const int f = i % kFilesPerReader;
                auto check = [&](std::unique_ptr<ResourceResponse> response) {
                    if (response->error) {
                        failed.fetch_add(1);
                    } else if (response->data != bodies_[r][static_cast<size_t>(f)]) {
                        wrong.fetch_add(1);
                    }
                };
                const ResourceRequest request(urls_[r][static_cast<size_t>(f)],
                                              HeaderMap{{"Accept", "*/*"}});
                if (i % 2 == 0) {
                    check(Access::getResource(request));
                } else {
                    Access::getResource(request, check);
                }
            }
        });
    }
    start.store(true);
    // Meanwhile the configuration is republished (another pack comes and goes) and the host
    // replaces its proxy, as a host may at any time.
    for (int i = 0; i < kRepublications; ++i) {
        SCache::mutate([&](FConfig& config) {
            if (i % 2 == 0) {
                config.put(pack("other", kPackTypeFerrit, 1, 1, {"https://other.com/"}));
            } else {
                config.remove("other");
            }
        });
        Environment::instance().setProxy(i % 3 == 0 ? nullptr : std::make_shared<FakeProxy>());
    }
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(failed.load(), 0);
}

}  // namespace
}  // namespace FerritTest
