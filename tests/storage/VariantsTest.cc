#include "base/Errors.h"
#include "storage/Variants.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/LogTags.h"
#include "storage/ConfigStore.h"
#include "tests/storage/StoreFixture.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

class VariantsTest : public FerritTest::StoreFixture {
  protected:
    static JSON stored(const std::string& key) {
        return ConfigStore::instance().get(key).valueOr(JSON());
    }
    static void putStored(const std::string& key, const JSON& value) {
        const Error error = ConfigStore::instance().put(key, value);
        ASSERT_FALSE(error) << error.message();
    }
    static JSON registration(const std::string& names, const std::string& accept) {
        return JSON(JSONObject{{"n", JSON(names)}, {"a", JSON(accept)}});
    }

    Variants& variants() { return Variants::instance(); }
};

TEST_F(VariantsTest, RegistrationIsStoredUnderTheVariantPrefix) {
    variants().registerAccept("host", "dark,large", "theme");
    EXPECT_EQ(stored("variant/host"), registration("dark,large", "theme"));
    EXPECT_EQ(variants().list(), (std::set<std::string>{"dark", "large"}));
    EXPECT_EQ(variants().accept(), "theme");
}

TEST_F(VariantsTest, AcceptsOnlyRegisteredValues) {
    variants().registerAccept("host", "dark,large", "theme");
    EXPECT_TRUE(variants().accepts("dark"));
    EXPECT_TRUE(variants().accepts("large"));
    EXPECT_FALSE(variants().accepts("light"));
    EXPECT_FALSE(variants().accepts("dark,large"));
    EXPECT_FALSE(variants().accepts(""));
}

// `names` empty with a non-empty `accept` removes the registration instead of storing it.
TEST_F(VariantsTest, EmptyNamesWithAcceptRemovesTheRegistration) {
    variants().registerAccept("host", "dark", "theme");
    ASSERT_TRUE(variants().accepts("dark"));
    variants().registerAccept("host", "", "theme");
    EXPECT_FALSE(ConfigStore::instance().contains("variant/host"));
    EXPECT_FALSE(variants().accepts("dark"));
    EXPECT_TRUE(variants().list().empty());
    EXPECT_EQ(variants().accept(), "");
}

TEST_F(VariantsTest, EmptyAcceptRemovesTheRegistration) {
    variants().registerAccept("host", "dark", "theme");
    variants().registerAccept("host", "dark", "");
    EXPECT_FALSE(ConfigStore::instance().contains("variant/host"));
    EXPECT_TRUE(variants().list().empty());
}

TEST_F(VariantsTest, EmptyKeyChangesNothing) {
    variants().registerAccept("host", "dark", "theme");
    MarlLogger::ScopedCapture capture;
    variants().registerAccept("", "light", "other");
    EXPECT_FALSE(ConfigStore::instance().contains("variant/"));
    EXPECT_EQ(variants().list(), (std::set<std::string>{"dark"}));
    EXPECT_EQ(capture->count("load", LogTag::kVariant), 0u);
}

// Two registrations that name the same single value leave that value once in the set, and only
// the first in key order contributes its "a" text.
TEST_F(VariantsTest, SameSingleValueTwiceIsKeptOnceWithTheFirstAcceptText) {
    variants().registerAccept("b-key", "dark", "second");
    variants().registerAccept("a-key", "dark", "first");
    EXPECT_EQ(variants().list(), (std::set<std::string>{"dark"}));
    EXPECT_EQ(variants().accept(), "first");
}

TEST_F(VariantsTest, AcceptTextsJoinInKeyOrderForRegistrationsThatAddValues) {
    variants().registerAccept("c", "x", "C");
    variants().registerAccept("a", "x,y", "A");
    variants().registerAccept("b", "z", "B");
    variants().registerAccept("d", "y,z", "D");
    EXPECT_EQ(variants().list(), (std::set<std::string>{"x", "y", "z"}));
    EXPECT_EQ(variants().accept(), "A,B");
}

// A stored value that isn't a JSON object is ignored and stays in the store.
TEST_F(VariantsTest, StoredValueThatIsNoObjectIsIgnoredAndStays) {
    putStored("variant/bad", JSON("dark"));
    putStored("variant/list", JSON(std::vector<JSON>{JSON("n"), JSON("a")}));
    variants().registerAccept("good", "large", "size");
    EXPECT_EQ(variants().list(), (std::set<std::string>{"large"}));
    EXPECT_EQ(variants().accept(), "size");
    EXPECT_EQ(stored("variant/bad"), JSON("dark"));
    EXPECT_TRUE(ConfigStore::instance().contains("variant/list"));
}

TEST_F(VariantsTest, UndecodableStoredValueIsIgnored) {
    std::unique_ptr<KeyValueStore> raw;
    ASSERT_EQ(KeyValueStore::open(ConfigStore::instance().path(),
                                  KeyValueStore::Options::forConfig(), &raw),
              0);
    ASSERT_EQ(raw->insert("variant/broken", "\xc1"), 0);
    raw.reset();
    variants().registerAccept("good", "large", "size");
    EXPECT_EQ(variants().list(), (std::set<std::string>{"large"}));
    EXPECT_TRUE(ConfigStore::instance().contains("variant/broken"));
}

// After a restart the set is rebuilt from the store, with no new registration.
TEST_F(VariantsTest, RestartRebuildsTheSetFromTheStore) {
    variants().registerAccept("host", "dark,large", "theme");
    variants().registerAccept("other", "small", "size");
    // A new process: the store is opened afresh and the set loaded from it.
    restart();
    putStored("unrelated", JSON(1));
    EXPECT_EQ(variants().list(), (std::set<std::string>{"dark", "large", "small"}));
    EXPECT_EQ(variants().accept(), "theme,size");
}

TEST_F(VariantsTest, LoadReadsRegistrationsWrittenByAnEarlierRun) {
    putStored("variant/k1", registration("a,b", "one"));
    putStored("variant/k2", registration("c", "two"));
    putStored("variantx", registration("nope", "no"));
    restart();
    EXPECT_EQ(variants().list(), (std::set<std::string>{"a", "b", "c"}));
    EXPECT_EQ(variants().accept(), "one,two");
}

TEST_F(VariantsTest, RegistrationThatOnlyRepeatsKnownValuesAddsNoAcceptText) {
    putStored("variant/a", registration("x,y", "A"));
    putStored("variant/b", registration("y,x", "B"));
    restart();
    EXPECT_EQ(variants().accept(), "A");
}

// Every piece of "n" split on "," is a value, an empty one too: ",x," holds "", "x" and "".
TEST_F(VariantsTest, EmptyPieceOfNamesIsAValue) {
    putStored("variant/a", registration("x", "A"));
    putStored("variant/b", registration(",x,", "B"));
    restart();
    EXPECT_EQ(variants().list(), (std::set<std::string>{"", "x"}));
    EXPECT_TRUE(variants().accepts(""));
    EXPECT_EQ(variants().accept(), "A,B");
}

TEST_F(VariantsTest, LoadLogsTheVariantsAndTheAcceptText) {
    MarlLogger::ScopedCapture capture;
    variants().registerAccept("host", "large,dark", "theme");
    const auto entry = capture->last("load", LogTag::kVariant);
    ASSERT_EQ(entry.event, "load");
    EXPECT_EQ(entry.field("variants"), JSON(std::vector<JSON>{JSON("dark"), JSON("large")}));
    EXPECT_EQ(entry.field("accept"), JSON("theme"));
}

TEST_F(VariantsTest, ListIsACopy) {
    variants().registerAccept("host", "dark", "theme");
    std::set<std::string> copy = variants().list();
    copy.insert("light");
    EXPECT_FALSE(variants().accepts("light"));
}

TEST_F(VariantsTest, ClosedStoreLeavesAnEmptySetAndLogsTheFailedWrite) {
    ConfigStore::instance().close();
    MarlLogger::ScopedCapture capture;
    variants().registerAccept("host", "dark", "theme");
    EXPECT_TRUE(variants().list().empty());
    const auto entry = capture->last("register", LogTag::kVariant);
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kInitStorageFailed));
    EXPECT_EQ(entry.field("key"), JSON("host"));
}

TEST_F(VariantsTest, ConcurrentRegistrationsAndQueriesEndConsistent) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 10; ++i) {
                variants().registerAccept("k" + std::to_string(t), "v" + std::to_string(t),
                                          "a" + std::to_string(t));
                variants().accepts("v0");
                variants().list();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    // Every load after the last write sees all four; a final load settles any race.
    restart();
    EXPECT_EQ(variants().list(), (std::set<std::string>{"v0", "v1", "v2", "v3"}));
    EXPECT_EQ(variants().accept(), "a0,a1,a2,a3");
}

}  // namespace
}  // namespace FerritCore
