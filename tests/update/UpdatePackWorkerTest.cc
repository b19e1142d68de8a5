// A run's state is the worker's alone: its stages refuse to run anywhere else in the builds
// that check contracts, and run as usual on the worker.
#include <gtest/gtest.h>

#include <thread>

#include "runtime/WorkerCheck.h"
#include "tests/update/InstallFixture.h"
#include "update/UpdatePack.h"

namespace FerritTest {
namespace {

using MarlLogger::json::JSON;

class UpdatePackWorkerTest : public InstallFixture {};

TEST_F(UpdatePackWorkerTest, StartOffTheWorkerStopsTheProcessWhenChecked) {
    if constexpr (!kContractsChecked) GTEST_SKIP() << "contracts are compiled out of this build";
    auto p = record("shop", kPackTypeFerrit, 2, 2, kPriorityAutoInstall);
    p->installedSeq = 1;
    put({p});
    UpdatePackPtr task = UpdatePack::create("shop", JSON(), kTriggerTimer);
    ASSERT_EQ(task->state(), UpdateState::NeedUpdate);
    // The test's own thread stands in for the worker of the manual runner; another is not it.
    EXPECT_DEATH(std::thread([&task] { task->start(); }).join(),
                 "UpdatePack.cc:[0-9]+: contract broken: this runs on the worker only");
}

TEST_F(UpdatePackWorkerTest, StartOnTheWorkerRunsTheTask) {
    auto p = record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    p->installedSeq = 1;
    put({p});
    UpdatePackPtr task = UpdatePack::create("shop", JSON(), kTriggerTimer);
    bool told = false;
    task->addListener([&told](const Error&) { told = true; });
    EXPECT_FALSE(told);
    TaskRunner::post([task] { task->start(); });
    TaskRunner::runDue();
    EXPECT_TRUE(told);
    EXPECT_EQ(task->state(), UpdateState::UpToDate);
}

}  // namespace
}  // namespace FerritTest
