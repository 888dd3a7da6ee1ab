#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

class GainMapConcurrencyTest : public PoolTest {};

using Batch = std::vector<std::shared_ptr<qcam::IImageBuffer>>;

// Keeps the producer at most `ahead` frames in front of the slowest consumer, so that the
// consumers really read most frames instead of finding them overwritten.
class Pacer {
 public:
  Pacer(int consumers, long ahead) : mDone(static_cast<size_t>(consumers), 0), mAhead(ahead) {}

  void waitForConsumers(long announced) {
    std::unique_lock<std::mutex> lock(mMutex);
    waitUntil(
        mChanged, lock,
        [&] { return *std::min_element(mDone.begin(), mDone.end()) + mAhead >= announced; },
        "the consumers to catch up with the producer");
  }

  void consumed(int consumer) {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      ++mDone[static_cast<size_t>(consumer)];
    }
    mChanged.notify_all();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<long> mDone;
  long const mAhead;
};

// Frames as the producer announces them to one consumer, nothing when it is done. A frame names
// the buffers the producer wrote: a release and resume between the producer's hand-back and a
// consumer's borrow legitimately gives the slot new, unwritten buffers under the same key.
class FrameQueue {
 public:
  struct Frame {
    int64_t key;
    int index;
    Batch written;
  };

  void push(std::optional<Frame> frame) {
    {
      std::lock_guard<std::mutex> lock(mMutex);
      mFrames.push_back(frame);
    }
    mReady.notify_one();
  }

  std::optional<Frame> pop() {
    std::unique_lock<std::mutex> lock(mMutex);
    waitUntil(
        mReady, lock, [this] { return !mFrames.empty(); }, "the producer to announce a frame");
    auto frame = mFrames.front();
    mFrames.pop_front();
    return frame;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mReady;
  std::deque<std::optional<Frame>> mFrames;
};

// A gain map of one frame: its key and buffer number up front, then one byte value throughout.
uint8_t fillByte(int64_t key, size_t buffer) {
  return static_cast<uint8_t>(static_cast<uint64_t>(key) * 5 + buffer * 3 + 1);
}

void writeFrame(std::shared_ptr<qcam::IImageBuffer> const& buffer, int64_t key, size_t b) {
  uint8_t* bytes = bytesOf(buffer);
  size_t size = buffer->getBufSizeInBytes(0);
  std::memset(bytes, fillByte(key, b), size);
  std::memcpy(bytes, &key, sizeof(key));
  uint64_t number = b;
  std::memcpy(bytes + sizeof(key), &number, sizeof(number));
}

bool frameIntact(std::shared_ptr<qcam::IImageBuffer> const& buffer, int64_t key, size_t b) {
  uint8_t const* bytes = bytesOf(buffer);
  if (bytes == nullptr) {
    return false;
  }
  size_t size = buffer->getBufSizeInBytes(0);
  int64_t writtenKey = 0;
  uint64_t writtenNumber = 0;
  std::memcpy(&writtenKey, bytes, sizeof(writtenKey));
  std::memcpy(&writtenNumber, bytes + sizeof(writtenKey), sizeof(writtenNumber));
  uint8_t value = fillByte(key, b);
  return writtenKey == key && writtenNumber == b &&
         std::all_of(bytes + 16, bytes + size, [value](uint8_t v) { return v == value; });
}

TEST_F(GainMapConcurrencyTest, FramesFlowWhileThePoolIsReleasedAndResumedUnderneath) {
  constexpr int kFrames = 2000;
  constexpr int kCycles = 150;
  constexpr int kConsumers = 3;
  constexpr long kMaxAttempts = 20000000;
  // Gain maps of 576x16: small, so that every byte can be written and checked.
  auto pool = createdPool(poolParams({{0, MSize(5760, 160)}}, 2, 3));
  // The threads' refusals are expected by the thousand; keep them out of the record.
  ULogger::sMode = 0;

  std::vector<FrameQueue> queues(kConsumers);
  std::atomic<long> producerGets{0};
  std::atomic<long> producerSets{0};
  std::atomic<long> consumerGets{0};
  std::atomic<long> consumerSets{0};
  std::atomic<long> damaged{0};
  std::atomic<long> intact{0};
  std::atomic<long> pulledFromReaders{0};
  std::atomic<long> attemptsLeft{kMaxAttempts};
  Pacer pacer(kConsumers, 2);

  std::thread producer([&] {
    int64_t key = 1;
    long announced = 0;
    while (key <= kFrames && attemptsLeft.fetch_sub(1) > 0) {
      pacer.waitForConsumers(announced);
      auto slot = pool->getProducerBuffer();
      if (!slot) {
        continue;
      }
      ++producerGets;
      // A slot taken just as a release ended has no buffers; the frame then carries none.
      Batch buffers = buffersOf(slot);
      for (size_t b = 0; b < buffers.size(); ++b) {
        writeFrame(buffers[b], key, b);
      }
      int index = slot->index;
      int validSize = static_cast<int>(buffers.size());
      if (pool->setProducerBuffer(key, validSize, slot) == 0) {
        ++producerSets;
        for (auto& queue : queues) {
          queue.push(FrameQueue::Frame{key, index, buffers});
        }
        ++announced;
      }
      ++key;
    }
    for (auto& queue : queues) {
      queue.push(std::nullopt);
    }
  });

  auto consume = [&](FrameQueue::Frame const& frame) {
    auto slot = pool->getConsumerBuffer(frame.key, frame.index);
    if (!slot) {
      return;
    }
    ++consumerGets;
    // Only the buffers the producer declared filled carry the frame.
    Batch buffers = buffersOf(slot);
    size_t filled = std::min(buffers.size(), static_cast<size_t>(stateOf(slot).validSize));
    for (size_t b = 0; b < filled; ++b) {
      if (b < frame.written.size() && buffers[b] == frame.written[b]) {
        ++(frameIntact(buffers[b], frame.key, b) ? intact : damaged);
      }
    }
    // Nothing may take the memory away from a consumer that holds the slot.
    if (buffersOf(slot) != buffers) {
      ++pulledFromReaders;
    }
    if (pool->setConsumerBuffer(slot) == 0) {
      ++consumerSets;
    }
  };

  std::vector<std::thread> consumers;
  for (int c = 0; c < kConsumers; ++c) {
    consumers.emplace_back([&, c] {
      while (auto frame = queues[static_cast<size_t>(c)].pop()) {
        consume(*frame);
        pacer.consumed(c);
      }
    });
  }

  std::thread switcher([&] {
    for (int cycle = 0; cycle < kCycles; ++cycle) {
      EXPECT_EQ(pool->setPoolReleased(), 0);
      EXPECT_EQ(pool->setPoolResume(), 0);
    }
  });

  producer.join();
  for (auto& consumer : consumers) {
    consumer.join();
  }
  switcher.join();
  waitIdle();
  ULogger::sMode = 0x2;

  EXPECT_GT(attemptsLeft.load(), 0) << "the producer gave up";
  EXPECT_EQ(producerSets.load(), producerGets.load());
  EXPECT_EQ(producerSets.load(), kFrames);
  EXPECT_EQ(consumerSets.load(), consumerGets.load());
  EXPECT_GT(consumerGets.load(), 0);
  EXPECT_EQ(damaged.load(), 0);
  EXPECT_EQ(pulledFromReaders.load(), 0);
  EXPECT_GT(intact.load(), 0);

  // Every slot is free; the slots of the rotation hold a whole batch and the others nothing, and
  // the memory alive is exactly that of the rotation.
  std::string const dump = dumpNow(*pool);
  std::string const head = std::string("[s:3] released(0) ") + kDumpHeader;
  ASSERT_EQ(dump.rfind(head, 0), 0u) << dump;
  size_t slots = 0;
  size_t withBuffers = 0;
  char const* item = dump.c_str() + head.size();
  int index = 0;
  int producerUser = 0;
  size_t consumerUsers = 0;
  int validSize = 0;
  long key = 0;
  size_t buffers = 0;
  int used = 0;
  while (std::sscanf(item, "[%d]: (%d, %zu, %d, %ld, %zu), %n", &index, &producerUser,
                     &consumerUsers, &validSize, &key, &buffers, &used) == 6 &&
         used > 0) {
    EXPECT_EQ(index, static_cast<int>(slots));
    EXPECT_EQ(producerUser, 0) << "slot " << index;
    EXPECT_EQ(consumerUsers, 0u) << "slot " << index;
    EXPECT_EQ(buffers, withBuffers == slots ? buffers : 0u) << "slot " << index;
    EXPECT_TRUE(buffers == 2 || buffers == 0) << "slot " << index;
    withBuffers += buffers == 2 ? 1 : 0;
    ++slots;
    item += used;
    used = 0;
  }
  EXPECT_STREQ(item, "}") << dump;
  EXPECT_EQ(slots, 6u);
  EXPECT_GE(withBuffers, 3u);
  EXPECT_EQ(heapsAdded(), withBuffers);
  EXPECT_EQ(lockedAdded(), 2 * withBuffers);

  pool.reset();
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(bytesAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
}

}  // namespace
}  // namespace gainmap_test
