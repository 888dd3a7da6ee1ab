#include <gtest/gtest.h>

#include <cstring>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

class GainMapProducerTest : public PoolTest {};

uint8_t patternByte(int64_t key, size_t buffer, size_t offset) {
  return static_cast<uint8_t>(static_cast<uint64_t>(key) * 7 + buffer * 31 + offset);
}

TEST_F(GainMapProducerTest, AFrameTravelsFromTheProducerToTwoConsumers) {
  verbose();
  auto pool = createdPool(fourByThree(4, 3));
  clearLogs();

  auto produced = pool->getProducerBuffer();
  ASSERT_TRUE(produced);
  EXPECT_EQ(produced->index, 0);
  ASSERT_EQ(produced->buffers.size(), 4u);
  EXPECT_TRUE(logged("[onGetProducerBuffer] [s:3] current index: 0", kDebug));
  EXPECT_TRUE(logged(printed("[onGetProducerBuffer] [s:3][i:0] slot:%p, size:4",
                             static_cast<void*>(produced.get())),
                     kDebug));
  for (size_t b = 0; b < produced->buffers.size(); ++b) {
    auto const& buffer = produced->buffers[b];
    EXPECT_EQ(buffer->getImgSize(), MSize(576, 432));
    EXPECT_EQ(buffer->getImgFormat(), qelcam::host::kFormatGainMap8);
    EXPECT_EQ(buffer->getBufStridesInBytes(0), kStride8);
    ASSERT_EQ(buffer->getBufSizeInBytes(0), kMap4x3Bytes);
    uint8_t* bytes = bytesOf(buffer);
    ASSERT_NE(bytes, nullptr);
    for (size_t i = 0; i < kMap4x3Bytes; ++i) {
      bytes[i] = patternByte(1000, b, i);
    }
  }
  EXPECT_EQ(pool->setProducerBuffer(1000, 4, produced), 0);
  EXPECT_TRUE(logged("[onSetProducerBuffer] [s:3] key: 1000, validSize: 4, slot index: 0", kDebug));
  EXPECT_TRUE(logged(printed("[onSetProducerBuffer] [s:3][i:0] slot:%p, size:4, valid size:4",
                             static_cast<void*>(produced.get())),
                     kDebug));
  produced.reset();

  auto first = pool->getConsumerBuffer(1000, 0);
  auto second = pool->getConsumerBuffer(1000, 0);
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(count("[onGetConsumerBuffer] index: 0, key: 1000", kDebug), 2);
  EXPECT_TRUE(logged(printed("[onGetConsumerBuffer] [s:3][i:0] slot:%p, size:4, validSize:4, c:1",
                             static_cast<void*>(first.get())),
                     kDebug));
  EXPECT_TRUE(logged(printed("[onGetConsumerBuffer] [s:3][i:0] slot:%p, size:4, validSize:4, c:2",
                             static_cast<void*>(first.get())),
                     kDebug));
  SlotState lent = stateOf(first);
  EXPECT_EQ(lent.consumerUserCount, 2u);
  EXPECT_FALSE(lent.producerUser);
  EXPECT_EQ(lent.key, 1000);
  EXPECT_EQ(lent.validSize, 4);
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader +
                                "[0]: (0, 2, 4, 1000, 4), [1]: (0, 0, 4, 0, 4), "
                                "[2]: (0, 0, 4, 0, 4), [3]: (0, 0, 4, 0, 0), "
                                "[4]: (0, 0, 4, 0, 0), [5]: (0, 0, 4, 0, 0), }");

  for (auto const& reader : {first, second}) {
    for (size_t b = 0; b < 4; ++b) {
      uint8_t const* bytes = bytesOf(reader->buffers[b]);
      size_t wrong = 0;
      for (size_t i = 0; i < kMap4x3Bytes; ++i) {
        wrong += bytes[i] != patternByte(1000, b, i) ? 1 : 0;
      }
      EXPECT_EQ(wrong, 0u) << "buffer " << b;
    }
  }

  clearLogs();
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  EXPECT_TRUE(logged("[onSetConsumerBuffer] [s:3] consumer slot index(0), slot count(3)", kDebug));
  EXPECT_TRUE(logged(printed("[onSetConsumerBuffer] [s:3][i:0] slot:%p, size:4, c:1",
                             static_cast<void*>(first.get())),
                     kDebug));
  EXPECT_EQ(pool->setConsumerBuffer(second), 0);
  EXPECT_TRUE(logged(printed("[onSetConsumerBuffer] [s:3][i:0] slot:%p, size:4, c:0",
                             static_cast<void*>(second.get())),
                     kDebug));
  EXPECT_EQ(stateOf(first).consumerUserCount, 0u);
  // Nothing went wrong, so nothing was dumped.
  EXPECT_TRUE(dumps().empty());
}

TEST_F(GainMapProducerTest, SlotsAreLentInStrictRoundRobinOrder) {
  auto pool = createdPool(fourByThree(1, 3));
  std::vector<int> order;
  for (int frame = 0; frame < 7; ++frame) {
    order.push_back(produce(*pool, 100 + frame));
  }
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 0, 1, 2, 0}));
  // Frames nobody consumed never make the rotation grow.
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader +
                                "[0]: (0, 0, 1, 106, 1), [1]: (0, 0, 1, 104, 1), "
                                "[2]: (0, 0, 1, 105, 1), [3]: (0, 0, 1, 0, 0), "
                                "[4]: (0, 0, 1, 0, 0), [5]: (0, 0, 1, 0, 0), }");
}

TEST_F(GainMapProducerTest, TheProducerIsRefusedAndTheStateDumpedWhenItCannotHaveTheSlot) {
  auto pool = createdPool(fourByThree(2, 1));
  clearLogs();

  auto held = pool->getProducerBuffer();
  ASSERT_TRUE(held);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has producer user", kError), 1);
  EXPECT_EQ(dumps(), (std::vector<std::string>{std::string("[s:3] released(0) ") + kDumpHeader +
                                               "[0]: (1, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 0), }"}));

  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(50, -1, held), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] user validSize(-1) exceeds slot buffer num(2)",
                  kError),
            1);
  EXPECT_EQ(pool->setProducerBuffer(50, 3, held), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] user validSize(3) exceeds slot buffer num(2)",
                  kError),
            1);
  EXPECT_EQ(dumps().size(), 2u);
  // The refusals changed nothing: the producer still holds the slot.
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (1, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 0), }");
  EXPECT_EQ(pool->setProducerBuffer(50, 2, held), 0);

  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(51, 2, held), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] cannot set producer buffer (p:0, c:0)", kError),
            1);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (0, 0, 2, 50, 2), [1]: (0, 0, 2, 0, 0), }");

  auto consumer = pool->getConsumerBuffer(50, 0);
  ASSERT_TRUE(consumer);
  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(52, 0, held), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] cannot set producer buffer (p:0, c:1)", kError),
            1);
  EXPECT_EQ(stateOf(held).key, 50);
  EXPECT_EQ(stateOf(held).validSize, 2);

  clearLogs();
  auto madeUp = std::make_shared<NSCam::v3::Utils::IGainMapBufPool::BufSlot>();
  madeUp->index = 1;
  EXPECT_EQ(pool->setProducerBuffer(53, 0, madeUp), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3] invalid slot index(1). Number of slots(1)", kError),
            1);
  madeUp->index = -1;
  EXPECT_EQ(pool->setProducerBuffer(53, 0, madeUp), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3] invalid slot index(-1). Number of slots(1)", kError),
            1);
  EXPECT_EQ(dumps().size(), 2u);
  EXPECT_EQ(pool->setConsumerBuffer(consumer), 0);

  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3] pool has been marked released", kError), 1);
  EXPECT_EQ(dumps(), (std::vector<std::string>{std::string("[s:3] released(1) ") + kDumpHeader +
                                               "[0]: (0, 0, 2, 50, 0), [1]: (0, 0, 2, 0, 0), }"}));
}

TEST_F(GainMapProducerTest, ABusySlotGrowsTheRotationByOneSlotAllocatedOnTheQueue) {
  auto pool = createdPool(fourByThree(1, 2));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  EXPECT_EQ(produce(*pool, 101), 1);

  hold();
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)", kWarning), 1);
  EXPECT_EQ(count("[onGetProducerBuffer] need pre alloc slot", kDebug), 1);
  // Slot 2 joined the rotation at once; its memory comes later.
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (0, 1, 1, 100, 1), [1]: (0, 0, 1, 101, 1), "
                            "[2]: (0, 0, 1, 0, 0), [3]: (0, 0, 1, 0, 0), }");
  EXPECT_EQ(heapsAdded(), 2u);

  // Asking again does not add a second slot.
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)", kWarning), 2);
  EXPECT_EQ(count("[onGetProducerBuffer] need pre alloc slot", kDebug), 1);

  // The busy slot is not skipped: once free it is the next one lent, then slot 1, then slot 2.
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(produce(*pool, 102), 0);
  EXPECT_EQ(produce(*pool, 103), 1);
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:2] slot is not ready", kWarning), 1);
  EXPECT_EQ(dumps().size(), 1u);
  // A consumer that reaches the slot meanwhile finds no buffers in it.
  EXPECT_FALSE(pool->getConsumerBuffer(0, 2));
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3][i:2] slot buffers has been released. mbReleased(0)",
                  kDebug),
            1);
  EXPECT_EQ(dumps().size(), 2u);
  EXPECT_FALSE(pool->getConsumerBuffer(0, 3));
  EXPECT_EQ(
      count("[onGetConsumerBuffer] [s:3] request invalid index(3). Number of slots(3)", kError), 1);

  release();
  waitIdle();
  EXPECT_TRUE(logged("[operator()] [s:3] async pre alloc slot(i:2) +", kDebug));
  EXPECT_TRUE(logged("[operator()] [s:3] async pre alloc slot(i:2) -", kDebug));
  EXPECT_EQ(heapsAdded(), 3u);
  clearLogs();
  auto grown = pool->getProducerBuffer();
  ASSERT_TRUE(grown);
  EXPECT_EQ(grown->index, 2);
  EXPECT_EQ(grown->buffers.size(), 1u);
  EXPECT_TRUE(stateOf(grown).ready);
  EXPECT_EQ(pool->setProducerBuffer(104, 1, grown), 0);
  // Slot 0 was free when the newest slot was taken: the rotation is 0, 1, 2 from now on.
  EXPECT_EQ(countContaining("need pre alloc"), 0);
  EXPECT_EQ(produce(*pool, 105), 0);
  EXPECT_EQ(produce(*pool, 106), 1);
  EXPECT_EQ(produce(*pool, 107), 2);
  EXPECT_EQ(produce(*pool, 108), 0);
  EXPECT_EQ(heapsAdded(), 3u);
}

TEST_F(GainMapProducerTest, TheRotationGrowsAgainAtItsLastSlotWhileSlotZeroIsBusyUpToTheMaximum) {
  auto pool = createdPool(fourByThree(1, 2));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto oldReader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(oldReader);
  EXPECT_EQ(produce(*pool, 101), 1);
  EXPECT_FALSE(pool->getProducerBuffer());  // adds slot 2
  waitIdle();
  EXPECT_EQ(pool->setConsumerBuffer(oldReader), 0);

  EXPECT_EQ(produce(*pool, 102), 0);
  auto reader = pool->getConsumerBuffer(102, 0);
  ASSERT_TRUE(reader);
  EXPECT_EQ(produce(*pool, 103), 1);

  clearLogs();
  auto last = pool->getProducerBuffer();
  ASSERT_TRUE(last);
  EXPECT_EQ(last->index, 2);
  EXPECT_EQ(count("[onGetProducerBuffer] need pre alloc another slot", kDebug), 1);
  EXPECT_EQ(countContaining("need pre alloc slot"), 0);
  EXPECT_TRUE(dumps().empty());
  EXPECT_EQ(pool->setProducerBuffer(104, 1, last), 0);
  waitIdle();
  EXPECT_TRUE(logged("[operator()] [s:3] async pre alloc slot(i:3) +", kDebug));
  EXPECT_EQ(heapsAdded(), 4u);

  // The cursor went to the newest slot instead of the busy slot 0. Taking slot 3, the last one
  // the pool may have, wants yet another slot and is told the rotation is full.
  clearLogs();
  auto full = pool->getProducerBuffer();
  ASSERT_TRUE(full);
  EXPECT_EQ(full->index, 3);
  EXPECT_EQ(count("[onGetProducerBuffer] need pre alloc another slot", kDebug), 1);
  EXPECT_EQ(count("[preAllocOneSlotLocked] [s:3] slot count(4) reach max(4), stop alloc new slot",
                  kError),
            1);
  EXPECT_EQ(pool->setProducerBuffer(105, 1, full), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 4u);

  // Slot 0 is next and still busy; the pending slot keeps the pool from asking again.
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)", kWarning), 1);
  EXPECT_EQ(countContaining("need pre alloc"), 0);
  EXPECT_EQ(countContaining("reach max"), 0);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (0, 1, 1, 102, 1), [1]: (0, 0, 1, 103, 1), "
                            "[2]: (0, 0, 1, 104, 1), [3]: (0, 0, 1, 105, 1), }");
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(produce(*pool, 106), 0);
}

TEST_F(GainMapProducerTest, AFullRotationLogsReachMaxOnEveryBusyTurn) {
  auto pool = createdPool(fourByThree(1, 1));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(pool->getProducerBuffer());  // adds slot 1, the last one allowed
  waitIdle();
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(produce(*pool, 101), 0);
  // Slot 0 is free when slot 1 is taken, so no slot is pending any more.
  EXPECT_EQ(produce(*pool, 102), 1);

  reader = pool->getConsumerBuffer(101, 0);
  ASSERT_TRUE(reader);
  clearLogs();
  for (int turn = 0; turn < 3; ++turn) {
    EXPECT_FALSE(pool->getProducerBuffer());
  }
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)", kWarning), 3);
  EXPECT_EQ(count("[onGetProducerBuffer] need pre alloc slot", kDebug), 3);
  EXPECT_EQ(count("[preAllocOneSlotLocked] [s:3] slot count(2) reach max(2), stop alloc new slot",
                  kError),
            3);
  EXPECT_EQ(dumps().size(), 3u);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 2u);
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(produce(*pool, 103), 0);
}

TEST_F(GainMapProducerTest, AMultiModePoolKeepsItsBuffersBySensorSize) {
  auto pool = createdPool(poolParams({{0, MSize(4000, 3000)},
                                      {1, MSize(4000, 2250)},
                                      {2, MSize(1920, 1080)},
                                      {3, MSize(4000, 3000)}},
                                     2, 2));
  // One block per slot, sized for the tallest map, whatever the number of modes.
  EXPECT_EQ(heapsAdded(), 2u);
  EXPECT_EQ(bytesAdded(), 2 * 2 * kMap4x3Bytes);

  auto slot = pool->getProducerBuffer();
  ASSERT_TRUE(slot);
  SlotState state = stateOf(slot);
  EXPECT_TRUE(state.useSizeMap);
  EXPECT_EQ(state.buffers, 0u);
  ASSERT_EQ(slot->buffersBySize.size(), 3u);
  std::vector<MSize> keys;
  for (auto const& [size, batch] : slot->buffersBySize) {
    keys.push_back(size);
    EXPECT_EQ(batch.size(), 2u);
  }
  EXPECT_EQ(keys, (std::vector<MSize>{MSize(4000, 3000), MSize(4000, 2250), MSize(1920, 1080)}));
  auto const& tall = slot->buffersBySize.at(MSize(4000, 3000));
  auto const& wide = slot->buffersBySize.at(MSize(4000, 2250));
  EXPECT_EQ(tall[0]->getImgSize(), MSize(576, 432));
  EXPECT_EQ(wide[0]->getImgSize(), MSize(576, 324));
  EXPECT_EQ(slot->buffersBySize.at(MSize(1920, 1080))[0]->getImgSize(), MSize(576, 324));
  // The modes are views of one block: the first map of every mode starts at the block's start.
  EXPECT_NE(bytesOf(tall[0]), nullptr);
  EXPECT_EQ(bytesOf(tall[0]), bytesOf(wide[0]));
  EXPECT_EQ(bytesOf(tall[1]) - bytesOf(tall[0]), static_cast<long>(kMap4x3Bytes));
  EXPECT_EQ(bytesOf(wide[1]) - bytesOf(wide[0]), static_cast<long>(kMap16x9Bytes));
  std::memset(bytesOf(wide[0]), 0x5a, kMap16x9Bytes);
  EXPECT_EQ(bytesOf(tall[0])[kMap16x9Bytes - 1], 0x5a);

  // The valid-size check counts `buffers` alone, which is empty here.
  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(500, 1, slot), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] user validSize(1) exceeds slot buffer num(0)",
                  kError),
            1);
  EXPECT_EQ(pool->setProducerBuffer(500, 0, slot), 0);

  // Consumers find `buffers` empty and are sent away.
  clearLogs();
  EXPECT_FALSE(pool->getConsumerBuffer(500, 0));
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3][i:0] slot buffers has been released. mbReleased(0)",
                  kDebug),
            1);
  EXPECT_EQ(dumps(), (std::vector<std::string>{std::string("[s:3] released(0) ") + kDumpHeader +
                                               "[0]: (0, 0, 0, 500, 0), [1]: (0, 0, 2, 0, 0), "
                                               "[2]: (0, 0, 2, 0, 0), [3]: (0, 0, 2, 0, 0), }"}));
}

}  // namespace
}  // namespace gainmap_test
