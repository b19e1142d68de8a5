// Shared by the tests of the content cache and its owners: a fresh process with a private root,
// resources made from a body, and a second connection to the cache's database that changes its
// bytes behind the cache's back, as a damaged disk or another process would.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/Digest.h"
#include "marl/Log.h"
#include "storage/Cache.h"
#include "storage/KeyValueStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritTest {

class CacheFixture : public StoreFixture {
  protected:
    // A resource as an owner stores it: CRC, MD5 and a content type of its body.
    static FerritCore::CachedResource resourceOf(const std::string& body, double date = 0,
                                                 double expires = 0) {
        FerritCore::CachedResource resource;
        resource.body = body;
        resource.crc = FerritCore::Digest::crc32(body);
        resource.md5 = FerritCore::Digest::md5Hex(body);
        resource.date = date;
        resource.expires = expires;
        resource.trigger = 6;
        resource.headers = {{"Content-Type", "application/javascript"}};
        return resource;
    }

    // A second connection to the cache's database.
    std::unique_ptr<FerritCore::KeyValueStore> rawCache() {
        std::unique_ptr<FerritCore::KeyValueStore> raw;
        EXPECT_EQ(
            FerritCore::KeyValueStore::open(FerritCore::Cache::instance().path(),
                                            FerritCore::KeyValueStore::Options::forCache(), &raw),
            0);
        return raw;
    }

    // The stored bytes of a key, or "" when absent.
    std::string rawValue(const std::string& key) {
        auto raw = rawCache();
        std::string value;
        bool found = false;
        EXPECT_EQ(raw->get(key, value, found), 0);
        return value;
    }

    // Flips one byte of `text` where it first occurs inside the stored bytes of `key`.
    void flipStoredByte(const std::string& key, const std::string& text) {
        auto raw = rawCache();
        std::string value;
        bool found = false;
        ASSERT_EQ(raw->get(key, value, found), 0);
        ASSERT_TRUE(found) << key;
        const size_t at = value.find(text);
        ASSERT_NE(at, std::string::npos);
        value[at + text.size() / 2] ^= 0x20;
        ASSERT_EQ(raw->insert(key, value), 0);
    }

    std::string path(const std::string& relative) const { return root() + relative; }

    MarlLogger::ScopedCapture logs_;
};

}  // namespace FerritTest
