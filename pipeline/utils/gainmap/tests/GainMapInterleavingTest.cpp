#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

// Interleavings of client calls with the pool's queued steps, each driven to the one order that
// once broke a guarantee: held queues, log lines that stop a thread half-way, and lock waits.
class GainMapInterleavingTest : public PoolTest {};

constexpr char kReleaseStart[] = "[operator()] [setPoolReleased] [s:3] async +";

TEST_F(GainMapInterleavingTest, AProducerOvertakenByAWholeReleaseIsRefused) {
  auto pool = createdPool(fourByThree(1, 2));
  ScriptedLogger script;
  // A dump holds the pool lock while it writes its line: stop it there.
  script.parkOn("[dump] ");
  script.onLine(kReleaseStart, [] {});
  std::thread dumper([&] { pool->dump(); });
  script.waitFor("[dump] ");

  // The release task starts and waits for the pool lock.
  auto releasing = std::async(std::launch::async, [&] { return pool->setPoolReleased(); });
  pid_t queueThread = script.waitFor(kReleaseStart);
  EXPECT_EQ(getWithin(releasing, "setPoolReleased"), 0);

  // The producer finds the pool active and queues behind the release task for the same lock.
  std::promise<pid_t> producerThread;
  auto lent = std::async(std::launch::async, [&] {
    producerThread.set_value(currentThreadId());
    return pool->getProducerBuffer();
  });
  auto producerThreadId = producerThread.get_future();
  waitUntilQueuedOnOneLock(queueThread, getWithin(producerThreadId, "the producer to start"),
                           "the release task and then the producer to wait for the pool lock");
  script.letGo("[dump] ");
  dumper.join();

  // The release ran to its end first; the producer, which saw the pool active, is refused.
  EXPECT_FALSE(getWithin(lent, "getProducerBuffer"));
  waitIdle();
  EXPECT_LT(positionOf("[operator()] [setPoolReleased] [s:3] async -"),
            positionOf("[onGetProducerBuffer] [s:3] pool has been marked released"));
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3] pool has been marked released", kError), 1);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(1) ") + kDumpHeader +
                            "[0]: (0, 0, 1, 0, 0), [1]: (0, 0, 1, 0, 0), [2]: (0, 0, 1, 0, 0), "
                            "[3]: (0, 0, 1, 0, 0), }");
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
}

}  // namespace
}  // namespace gainmap_test
