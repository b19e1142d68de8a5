// Eight threads read, write and touch the same hundred URLs of the content cache for a bounded
// time (FERRIT_CACHE_STRESS_SECONDS, 2 by default; run it for 10 by hand). Every read must give a
// whole body that passed its CRC, and after the consistency pass the stored total must equal the
// sum of the entries. Meant to run under the thread sanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/Digest.h"
#include "base/Errors.h"
#include "storage/Cache.h"
#include "tests/storage/CacheFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using FerritCore::Cache;
using FerritCore::CachedResource;
using FerritCore::Error;

constexpr int kThreads = 8;
constexpr int kUrls = 100;
// The first few URLs move between the tiers as their bodies change.
constexpr int kLargeCapableUrls = 4;

double stressSeconds() {
    const char* text = std::getenv("FERRIT_CACHE_STRESS_SECONDS");
    const double seconds = text != nullptr ? std::atof(text) : 0;
    return seconds > 0 ? seconds : 2.0;
}

std::string urlOf(int index) {
    return "static.example.com/stress/" + std::to_string(index) + ".js";
}

// A body that says which URL and generation it is, so that a reader can rebuild the exact bytes.
std::string bodyOf(int index, uint64_t generation) {
    const std::string head =
        "u=" + std::to_string(index) + ";g=" + std::to_string(generation) + ";";
    size_t length = 64 + (generation * 37 + static_cast<uint64_t>(index) * 11) % 4096;
    if (index < kLargeCapableUrls && generation % 2 == 1) length += Cache::kLargeThreshold;
    std::string body = head;
    body.reserve(length);
    while (body.size() < length)
        body.push_back(static_cast<char>('a' + (body.size() * 7 + generation + index) % 26));
    return body;
}

// The body's own claim of its URL and generation, checked against a rebuild.
bool bodyIsWhole(const std::string& body, int index) {
    const std::string prefix = "u=" + std::to_string(index) + ";g=";
    if (body.rfind(prefix, 0) != 0) return false;
    const size_t end = body.find(';', prefix.size());
    if (end == std::string::npos) return false;
    const uint64_t generation = std::strtoull(body.c_str() + prefix.size(), nullptr, 10);
    return body == bodyOf(index, generation);
}

class CacheThreadTest : public CacheFixture {};

TEST_F(CacheThreadTest, ConcurrentReadsAndWritesKeepEveryBodyWholeAndTheTotalExact) {
    Cache& cache = Cache::instance();
    std::atomic<uint64_t> generations{1};
    std::vector<std::atomic<bool>> written(kUrls);
    std::atomic<uint64_t> reads{0}, hits{0}, writes{0}, failures{0};
    std::mutex failureMutex;
    std::string firstFailure;
    auto fail = [&](const std::string& what) {
        failures.fetch_add(1);
        std::lock_guard<std::mutex> lock(failureMutex);
        if (firstFailure.empty()) firstFailure = what;
    };

    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(stressSeconds()));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(1234 + t);
            std::uniform_int_distribution<int> pickUrl(0, kUrls - 1);
            std::uniform_int_distribution<int> pickOperation(0, 99);
            const std::string owner = t % 2 == 0 ? "ModuleCache" : "UniApp";
            while (std::chrono::steady_clock::now() < deadline) {
                const int index = pickUrl(random);
                const std::string url = urlOf(index);
                const int operation = pickOperation(random);
                if (operation < 50) {
                    const bool known = written[index].load(std::memory_order_acquire);
                    Error error;
                    auto resource = cache.read(url, owner, error);
                    reads.fetch_add(1);
                    if (resource) {
                        hits.fetch_add(1);
                        if (FerritCore::Digest::crc32(resource->body) != resource->crc)
                            fail("CRC of " + url);
                        if (!bodyIsWhole(resource->body, index)) fail("torn body of " + url);
                    } else if (known || error.code() != Errors::kFileNotExists) {
                        fail("read of " + url + ": " + error.message());
                    }
                } else if (operation < 95) {
                    const uint64_t generation = generations.fetch_add(1);
                    CachedResource resource = resourceOf(bodyOf(index, generation),
                                                         static_cast<double>(generation), 1e15);
                    Error error;
                    if (!cache.write(url, owner, resource, error)) {
                        fail("write of " + url + ": " + error.message());
                    } else {
                        written[index].store(true, std::memory_order_release);
                        writes.fetch_add(1);
                    }
                } else if (operation < 98) {
                    cache.touch(url, owner, 2e15);
                } else {
                    (void)cache.metaJson(url);
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(failures.load(), 0u) << firstFailure;
    EXPECT_GT(writes.load(), 0u);
    EXPECT_GT(hits.load(), 0u);

    cache.sync();
    int64_t sum = 0;
    for (int index = 0; index < kUrls; ++index) {
        const auto meta = cache.metaJson(urlOf(index));
        if (written[index].load()) {
            EXPECT_FALSE(meta.isNull()) << urlOf(index);
            Error error;
            auto resource = cache.read(urlOf(index), "", error);
            ASSERT_NE(resource, nullptr) << error.message();
            EXPECT_EQ(meta["s"].int64Value(), static_cast<int64_t>(resource->body.size()));
        }
        sum += meta["s"].int64Value();
    }
    EXPECT_EQ(cache.totalSize(), sum);
    EXPECT_EQ(cache.get("config").valueOr(MarlLogger::json::JSON())["s"].int64Value(), sum);
    std::printf("[ cache stress ] %.1f s: %llu reads (%llu hits), %llu writes\n", stressSeconds(),
                static_cast<unsigned long long>(reads.load()),
                static_cast<unsigned long long>(hits.load()),
                static_cast<unsigned long long>(writes.load()));
}

}  // namespace
}  // namespace FerritTest
