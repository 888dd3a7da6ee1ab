#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

// Interleavings of client calls with the pool's queued steps, each driven to the one order that
// once broke a guarantee: held queues, log lines that stop a thread half-way, and lock waits.
class GainMapInterleavingTest : public PoolTest {
 protected:
  // A pool of two slots: frame 100 in slot 0, which `reader` still reads, and frame 101 in slot 1.
  struct ReadPool {
    std::shared_ptr<Pool> pool;
    SlotPtr reader;
  };
  ReadPool poolWithSlotZeroRead() {
    ReadPool read{createdPool(fourByThree(1, 2)), nullptr};
    EXPECT_EQ(produce(*read.pool, 100), 0);
    read.reader = read.pool->getConsumerBuffer(100, 0);
    EXPECT_TRUE(read.reader);
    EXPECT_EQ(produce(*read.pool, 101), 1);
    return read;
  }
};

constexpr char kReleaseStart[] = "[operator()] [setPoolReleased] [s:3] async +";
// The release's barrier step: holding the queues here stops the release task behind it.
constexpr char kReleaseBarrier[] = "[operator()] Wait for CTM createPool/resumePool done";

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

  auto slot = getWithin(lent, "getProducerBuffer");
  waitIdle();
  if (slot) {
    // Under ThreadSanitizer's lock interception the kernel's order is not always kept, and the
    // producer may take the lock first. It must then be lent slot 0 with its memory, which the
    // release leaves to it and which goes when it hands the slot back.
    EXPECT_EQ(stateOf(slot).buffers, 1u);
    EXPECT_EQ(count("[operator()] [s:3][i:0] still has users (p:1, c: 0)", kDebug), 1);
    EXPECT_EQ(heapsAdded(), 1u);
    EXPECT_EQ(pool->setProducerBuffer(1, 1, slot), 0);
  } else {
    // The release ran to its end first; the producer, which saw the pool active, is refused.
    EXPECT_LT(positionOf("[operator()] [setPoolReleased] [s:3] async -"),
              positionOf("[onGetProducerBuffer] [s:3] pool has been marked released"));
    EXPECT_EQ(count("[onGetProducerBuffer] [s:3] pool has been marked released", kError), 1);
    EXPECT_EQ(lastDump(), std::string("[s:3] released(1) ") + kDumpHeader +
                              "[0]: (0, 0, 1, 0, 0), [1]: (0, 0, 1, 0, 0), [2]: (0, 0, 1, 0, 0), "
                              "[3]: (0, 0, 1, 0, 0), }");
  }
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
}

TEST_F(GainMapInterleavingTest, ASlotAddedBehindAReleaseAndResumeIsAllocatedOnce) {
  auto [pool, reader] = poolWithSlotZeroRead();
  ASSERT_TRUE(reader);

  ScriptedLogger script;
  // The queue stops right after the release's barrier, so the release task waits on it.
  script.onLine(kReleaseBarrier, [this] { hold(); });
  script.parkOn("[operator()] [s:3] async pre alloc slot(i:2) +");
  EXPECT_EQ(pool->setPoolReleased(), 0);
  EXPECT_EQ(pool->setPoolResume(), 0);
  // Slot 0 is still read: the rotation grows by slot 2, whose allocation queues behind the resume.
  EXPECT_FALSE(pool->getProducerBuffer());
  release();
  script.waitFor("[operator()] [s:3] async pre alloc slot(i:2) +");

  // The resume gave slot 2 its memory; the producer reaches it and fills it.
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(produce(*pool, 102), 0);
  EXPECT_EQ(produce(*pool, 103), 1);
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  ASSERT_EQ(writing->index, 2);
  auto written = buffersOf(writing);
  ASSERT_EQ(written.size(), 1u);
  bytesOf(written[0])[0] = 0x5a;

  script.letGo("[operator()] [s:3] async pre alloc slot(i:2) +");
  waitIdle();
  EXPECT_EQ(count("[operator()] [s:3] async pre alloc slot(i:2) -", kDebug), 1);
  // The late allocation left the holder's buffers alone.
  EXPECT_EQ(buffersOf(writing), written);
  EXPECT_EQ(pool->setProducerBuffer(104, 1, writing), 0);
  auto frame = pool->getConsumerBuffer(104, 2);
  ASSERT_TRUE(frame);
  EXPECT_EQ(bytesOf(buffersOf(frame)[0])[0], 0x5a);
  EXPECT_EQ(pool->setConsumerBuffer(frame), 0);
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader +
                                "[0]: (0, 0, 1, 102, 1), [1]: (0, 0, 1, 103, 1), "
                                "[2]: (0, 0, 1, 104, 1), [3]: (0, 0, 1, 0, 0), }");
  // Two heaps at creation, two at the resume (slots 1 and 2), none since.
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 4);
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(lockedAdded(), 3u);
  EXPECT_EQ(droppedLockedAdded(), 0u);
}

TEST_F(GainMapInterleavingTest, ASlotAddedBehindAReleaseWaitsForTheResumeForItsMemory) {
  auto [pool, reader] = poolWithSlotZeroRead();
  ASSERT_TRUE(reader);

  ScriptedLogger script;
  script.onLine(kReleaseBarrier, [this] { hold(); });
  EXPECT_EQ(pool->setPoolReleased(), 0);
  EXPECT_FALSE(pool->getProducerBuffer());
  release();
  waitIdle();

  // A released pool keeps memory only for the slot its reader still holds.
  EXPECT_EQ(count("[operator()] [s:3] async pre alloc slot(i:2) -", kDebug), 1);
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(1) ") + kDumpHeader +
                                "[0]: (0, 0, 1, 100, 0), [1]: (0, 0, 1, 101, 0), "
                                "[2]: (0, 0, 1, 0, 0), [3]: (0, 0, 1, 0, 0), }");

  // The resume gives slot 2 its memory along with the rest of the rotation.
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  EXPECT_EQ(countContaining("slot still has buffer"), 0);
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(produce(*pool, 102), 0);
  EXPECT_EQ(produce(*pool, 103), 1);
  EXPECT_EQ(produce(*pool, 104), 2);
}

TEST_F(GainMapInterleavingTest, SlotsReturnedWhileTheResumeRunsKeepTheirMemory) {
  verbose();
  auto pool = createdPool(fourByThree(1, 3));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 2u);

  // The resume has passed the two held slots, which keep their memory, and allocates slot 2.
  ScriptedLogger script;
  script.parkOn("[allocSlotBuffersLocked] [s:3][i:2][b:0] buffer created");
  EXPECT_EQ(pool->setPoolResume(), 0);
  script.waitFor("[allocSlotBuffersLocked] [s:3][i:2][b:0] buffer created");
  EXPECT_EQ(count("[operator()] [s:3][i:0] slot still has buffer, size:1 (p:0, c:1)", kInfo), 1);
  EXPECT_EQ(count("[operator()] [s:3][i:1] slot still has buffer, size:1 (p:1, c:0)", kInfo), 1);

  // Both users return their slots before the pool is marked active again.
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(pool->setProducerBuffer(101, 1, writing), 0);
  script.letGo("[allocSlotBuffersLocked] [s:3][i:2][b:0] buffer created");
  waitIdle();

  EXPECT_EQ(countContaining("release slot buffers"), 0);
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader +
                                "[0]: (0, 0, 1, 100, 1), [1]: (0, 0, 1, 101, 1), "
                                "[2]: (0, 0, 1, 0, 1), [3]: (0, 0, 1, 0, 0), "
                                "[4]: (0, 0, 1, 0, 0), [5]: (0, 0, 1, 0, 0), }");
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(lockedAdded(), 3u);
  // Every slot the producer is lent has its memory.
  for (int i : {2, 0, 1}) {
    auto slot = pool->getProducerBuffer();
    ASSERT_TRUE(slot);
    EXPECT_EQ(slot->index, i);
    EXPECT_EQ(stateOf(slot).buffers, 1u);
    EXPECT_EQ(pool->setProducerBuffer(200 + i, 1, slot), 0);
  }
}

TEST_F(GainMapInterleavingTest, ASlotReturnedBeforeTheReleaseTaskReachesItIsStillFreed) {
  auto pool = createdPool(fourByThree(1, 2));
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  EXPECT_EQ(pool->setProducerBuffer(100, 1, writing), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  ASSERT_EQ(writing->index, 1);

  // The release task has marked the pool and stops at slot 0, before it reaches slot 1.
  ScriptedLogger script;
  script.parkOn("[operator()] [s:3][i:0] still has users (p:0, c: 1)");
  EXPECT_EQ(pool->setPoolReleased(), 0);
  script.waitFor("[operator()] [s:3][i:0] still has users (p:0, c: 1)");
  EXPECT_EQ(pool->setProducerBuffer(101, 1, writing), 0);
  script.letGo("[operator()] [s:3][i:0] still has users (p:0, c: 1)");
  waitIdle();

  // Slot 1 was idle when the task reached it; slot 0 goes with its reader.
  EXPECT_EQ(countContaining("[s:3][i:1] still has users"), 0);
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(1) ") + kDumpHeader +
                                "[0]: (0, 0, 1, 100, 0), [1]: (0, 0, 1, 101, 0), "
                                "[2]: (0, 0, 1, 0, 0), [3]: (0, 0, 1, 0, 0), }");
}

TEST_F(GainMapInterleavingTest, AResumeWritesNothingAHolderOfAMultiModeSlotReads) {
  auto pool = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 1));
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  auto tall = writing->buffersBySize.at(MSize(4000, 3000));

  // The holder reads its slot once the resume has been through it, without any ordering with the
  // queue beyond that: a write of the resume to the slot would be a data race (ThreadSanitizer
  // reports it).
  std::atomic<bool> resumed{false};
  ScriptedLogger script;
  // Relaxed on purpose: the flag must not order the holder's reads after the queue's writes.
  script.onLine("[operator()] [setPoolResume] [s:3] async -",
                [&] { resumed.store(true, std::memory_order_relaxed); });
  EXPECT_EQ(pool->setPoolReleased(), 0);
  EXPECT_EQ(pool->setPoolResume(), 0);
  std::thread holder([&] {
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!resumed.load(std::memory_order_relaxed)) {
      if (std::chrono::steady_clock::now() > deadline) {
        giveUp("the resume task to end");
      }
      std::this_thread::yield();
    }
    EXPECT_TRUE(writing->useSizeMap);
    EXPECT_EQ(writing->buffersBySize.size(), 2u);
    EXPECT_EQ(writing->buffersBySize.at(MSize(4000, 3000)), tall);
  });
  holder.join();
  waitIdle();

  // The resume still made the slot a heap, as it does for every slot of a multi-mode pool, and
  // dropped it with the buffers it did not need.
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 2);
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(droppedLockedAdded(), 2u);
  EXPECT_EQ(pool->setProducerBuffer(5, 0, writing), 0);
}

}  // namespace
}  // namespace gainmap_test
