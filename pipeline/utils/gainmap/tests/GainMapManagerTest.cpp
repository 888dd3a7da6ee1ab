// The manager as clients meet it: one process-wide registry, one pool per sensor id.

#include <gtest/gtest.h>

#include <future>
#include <set>
#include <thread>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;

class ManagerTest : public PoolTest {
 protected:
  // Each test files its pools under its own key and sensor ids, and removes them afterwards, so
  // that the shared manager is empty between tests.
  static constexpr int32_t kKey = 4242;

  void TearDown() override {
    manager()->destroyAllPools(kKey);
    PoolTest::TearDown();
  }

  static std::shared_ptr<IGainMapBufPoolManager> manager() {
    return IGainMapBufPoolManager::getInstance();
  }

  // A one-mode pool of three slots, once its creation task has run.
  std::shared_ptr<IGainMapBufPool> created(int32_t sensorId, int32_t uniKey = kKey) {
    EXPECT_EQ(
        manager()->createPool(poolParams({{0, MSize(4000, 3000)}}, 1, 3, sensorId, uniKey), false),
        0);
    waitIdle();
    return manager()->getPool(sensorId);
  }
};

TEST_F(ManagerTest, ConcurrentFirstCallsConstructOneManager) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fresh process, so that this is really the first call.
  EXPECT_EXIT(
      {
        qelcam::host::LogCapture capture;
        std::vector<std::future<IGainMapBufPoolManager*>> callers;
        for (int i = 0; i < 8; ++i) {
          callers.push_back(std::async(std::launch::async, [] { return manager().get(); }));
        }
        std::set<IGainMapBufPoolManager*> seen;
        for (auto& caller : callers) {
          seen.insert(caller.get());
        }
        int constructions = 0;
        for (auto& record : capture.records()) {
          constructions += record.text.rfind("[GainMapBufPoolMgrImp] 0x", 0) == 0 ? 1 : 0;
        }
        std::exit(seen.size() == 1 && constructions == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ManagerTest, CreatePoolReplacesSilentlyAndTheOldPoolServesItsHolder) {
  std::shared_ptr<IGainMapBufPool> first = created(11);
  uint64_t const heapsOfOnePool = heapsAdded();
  ASSERT_EQ(heapsOfOnePool, 3u);
  clearLogs();

  std::shared_ptr<IGainMapBufPool> second = created(11);
  ASSERT_TRUE(second);
  EXPECT_NE(first, second);
  EXPECT_EQ(manager()->getPool(11), second);
  for (auto& record : logs()) {
    EXPECT_GT(record.level, kWarning) << "replacing is silent: " << record.text;
  }
  EXPECT_TRUE(logged("[createPool] sensorId: 11, uniKey: 4242", kDebug));

  // The holder of the replaced pool keeps a working pool until it lets go.
  auto slot = first->getProducerBuffer();
  ASSERT_TRUE(slot);
  EXPECT_EQ(first->setProducerBuffer(1000, 1, slot), 0);
  EXPECT_EQ(heapsAdded(), 2 * heapsOfOnePool);
  first.reset();
  EXPECT_EQ(heapsAdded(), heapsOfOnePool);
}

TEST_F(ManagerTest, UnknownSensorIdsAreRefusedAndNotFiled) {
  qelcam::host::LogCapture both;
  ULogger::sMode = 0x3;
  EXPECT_EQ(manager()->getPool(-31), nullptr);
  EXPECT_EQ(manager()->releasePool(-32), -22);
  EXPECT_EQ(manager()->resumePool(-33), -22);

  EXPECT_TRUE(logged("[getPool] [s:-31] pool does not exist", kError));
  EXPECT_TRUE(logged("[releasePool] [s:-32] pool does not exist", kError));
  EXPECT_TRUE(logged("[resumePool] [s:-33] pool does not exist", kError));
  int suffixed = 0;
  for (auto& record : both.records()) {
    if (record.sink == qelcam::host::LogRecord::Sink::DebugPrint &&
        record.text.find("[getPool] [s:-31] pool does not exist (getPool){#") !=
            std::string::npos) {
      EXPECT_NE(record.text.find(":pipeline/utils/gainmap/GainMapPool}"), std::string::npos);
      ++suffixed;
    }
  }
  EXPECT_EQ(suffixed, 1);

  // The lookups added no entry: a second lookup fails the same way.
  clearLogs();
  EXPECT_EQ(manager()->getPool(-31), nullptr);
  EXPECT_TRUE(logged("[getPool] [s:-31] pool does not exist", kError));
}

TEST_F(ManagerTest, NegativeSensorIdsAreKeysLikeAnyOther) {
  std::shared_ptr<IGainMapBufPool> pool = created(-7);
  ASSERT_TRUE(pool);
  EXPECT_EQ(pool->getUniKey(), kKey);
  EXPECT_EQ(manager()->releasePool(-7), 0);
  EXPECT_TRUE(logged("[releasePool] [s:-7] set pool released", kDebug));
  waitIdle();
  EXPECT_EQ(pool->getProducerBuffer(), nullptr);
  EXPECT_TRUE(logged("[onGetProducerBuffer] [s:-7] pool has been marked released", kError));
}

TEST_F(ManagerTest, ReleaseAndResumeReachThePool) {
  std::shared_ptr<IGainMapBufPool> pool = created(21);
  ASSERT_EQ(heapsAdded(), 3u);

  EXPECT_EQ(manager()->releasePool(21), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(manager()->releasePool(21), 0);
  waitIdle();
  EXPECT_TRUE(logged("[operator()] [s:21] has already been marked released", kWarning));

  EXPECT_EQ(manager()->resumePool(21), 0);
  EXPECT_TRUE(logged("[resumePool] [s:21] set pool resume", kDebug));
  waitIdle();
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_TRUE(pool->getProducerBuffer());
}

TEST_F(ManagerTest, DestroyAllPoolsErasesExactlyThePoolsOfItsKey) {
  created(31);
  created(32);
  created(33, kKey + 1);
  ASSERT_EQ(heapsAdded(), 9u);
  clearLogs();

  EXPECT_EQ(manager()->destroyAllPools(kKey), 0);
  EXPECT_TRUE(logged("[destroyAllPools] destroy pool w/ uniKey(4242)", kDebug));
  EXPECT_TRUE(logged("[destroyAllPools] [s:31] uniKey matched, clear pool", kDebug));
  EXPECT_TRUE(logged("[destroyAllPools] [s:32] uniKey matched, clear pool", kDebug));
  EXPECT_EQ(countContaining("uniKey matched"), 2);
  EXPECT_EQ(manager()->getPool(31), nullptr);
  EXPECT_EQ(manager()->getPool(32), nullptr);
  ASSERT_TRUE(manager()->getPool(33));
  EXPECT_EQ(heapsAdded(), 3u);

  clearLogs();
  EXPECT_EQ(manager()->destroyAllPools(999), 0);
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].text, "[destroyAllPools] destroy pool w/ uniKey(999)");
  EXPECT_TRUE(manager()->getPool(33));

  manager()->destroyAllPools(kKey + 1);
  EXPECT_EQ(heapsAdded(), 0u);
}

TEST_F(ManagerTest, APoolHeldByAClientOutlivesDestroyAllPools) {
  std::shared_ptr<IGainMapBufPool> held = created(41);
  manager()->destroyAllPools(kKey);
  EXPECT_EQ(manager()->getPool(41), nullptr);

  auto slot = held->getProducerBuffer();
  ASSERT_TRUE(slot);
  EXPECT_EQ(held->setProducerBuffer(5, 1, slot), 0);
  auto borrowed = held->getConsumerBuffer(5, slot->index);
  ASSERT_TRUE(borrowed);
  EXPECT_EQ(held->setConsumerBuffer(borrowed), 0);
  EXPECT_EQ(heapsAdded(), 3u);

  // Dropped by the client, outside the manager's lock.
  held.reset();
  EXPECT_EQ(heapsAdded(), 0u);
}

TEST_F(ManagerTest, DumpAsksEveryPoolAndNothingElse) {
  std::shared_ptr<IGainMapBufPoolManager> empty = manager();
  clearLogs();
  empty->dump();
  EXPECT_TRUE(logs().empty());

  created(51);
  created(52);
  clearLogs();
  manager()->dump();
  std::vector<std::string> lines = dumps();
  ASSERT_EQ(lines.size(), 2u);
  std::set<std::string> heads;
  for (auto& line : lines) {
    heads.insert(line.substr(0, line.find(']') + 1));
  }
  EXPECT_EQ(heads, (std::set<std::string>{"[s:51]", "[s:52]"}));
  EXPECT_EQ(logs().size(), 2u);
}

}  // namespace
}  // namespace gainmap_test
