// The pool's interleavings, every schedule up to each scenario's preemption bound: a copy of the
// pool and the manager built with scheduling points, run by the explorer (tools/gainmap-explore).
// Each scenario sets a pool up, lets two or three client threads and the pool's queue race, and
// checks every call's outcome against the ones the protocol allows, then the pool at rest.

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Explorer.h"
#include "GainMapBufPoolImp.h"
#include "GainMapBufPoolMgrImp.h"
#include "HostPlatform.h"
#include "camsys/ULog.h"

namespace {

using explore::check;
using explore::spawn;
using NSCam::MSize;
using Pool = GainMapBufPoolImp;
using SlotPtr = std::shared_ptr<NSCam::v3::Utils::IGainMapBufPool::BufSlot>;
using ULogger = NSCam::Utils::ULog::ULogger;
using Allowed = std::initializer_list<char const*>;

constexpr int kSensor = 3;
constexpr int kUniKey = 77;

// The image memory when the scenario's run began; "main" sets and reads it.
qelcam::host::HeapStats base;

// The reason of this thread's last refused call, from the pool's refusal events.
thread_local std::string tRefusal;

// The logger of the run: it keeps the last line it was given (the pool's dump) instead of writing.
struct LastLine : ULogger {
  void write(uint32_t, char const*, int, char const* text, int) override { line = text; }
  std::string line;
} lastLine;

// A call's outcome, "ok" or the reason of its refusal, must be one the protocol allows here.
void expect(char const* call, bool ok, Allowed allowed = {"ok"}) {
  std::string const got = ok ? "ok" : tRefusal.empty() ? "no reason" : tRefusal;
  tRefusal.clear();
  check(std::find(allowed.begin(), allowed.end(), got) != allowed.end(),
        std::string(call) + " gave \"" + got + "\", which the protocol does not allow here");
}

// Two slots of gain maps of 576x16 bytes.
Pool::PoolParameters const kTwoSlots{kSensor, {{0, MSize(5760, 160)}}, 1, 2, kUniKey};

std::shared_ptr<Pool> newPool(Pool::PoolParameters const& parameters = kTwoSlots) {
  auto pool = std::make_shared<Pool>(parameters, false);
  explore::settle();
  return pool;
}

std::vector<std::shared_ptr<qcam::IImageBuffer>> buffersOf(SlotPtr const& slot) {
  auto imp = std::static_pointer_cast<Pool::BufSlotImp>(slot);
  gainmap::MutexLocker lock(imp->lock);
  return imp->buffers;
}

// The producer's frame: takes a slot, which carries its buffers, and hands it back.
void produce(Pool& pool, long key, Allowed allowed = {"ok"}) {
  SlotPtr slot = pool.getProducerBuffer();
  check(!slot || !buffersOf(slot).empty(), "the producer was lent a slot without buffers");
  expect("a frame", slot && pool.setProducerBuffer(key, 1, slot) == 0, allowed);
}

// A consumer holding a lent slot, which carries its buffers: nobody may change them.
struct Hold {
  SlotPtr slot;
  std::vector<std::shared_ptr<qcam::IImageBuffer>> buffers;

  explicit Hold(SlotPtr lent) : slot(std::move(lent)), buffers(buffersOf(slot)) {
    check(!buffers.empty(), "a consumer was lent a slot without buffers");
  }
  void giveBack(Pool& pool) {
    check(buffersOf(slot) == buffers,
          "slot " + std::to_string(slot->index) + " changed under its consumer");
    buffers.clear();
    expect("setConsumerBuffer", pool.setConsumerBuffer(slot) == 0);
  }
};

// A borrow that the schedule may refuse; a lent slot is given back.
void borrow(Pool& pool, long key, int index, Allowed allowed) {
  SlotPtr slot = pool.getConsumerBuffer(key, index);
  expect("getConsumerBuffer", slot != nullptr, allowed);
  if (slot) {
    Hold(slot).giveBack(pool);
  }
}

// Once every thread has ended and the queue is idle, the pool's dump: users are back to zero, a
// released pool's slots hold no memory, an active pool lends every slot with its buffers, and the
// memory alive is one heap per slot that has buffers.
void checkAtRest(Pool& pool) {
  explore::joinAll();
  qelcam::host::LogGates gates;
  gates.set(2, 5, ULogger::sNormalDetailsMask | 0x201000);
  pool.dump();
  std::string const dump = lastLine.line;
  check(dump.rfind("[dump] [s:", 0) == 0, "no dump: " + dump);
  bool const released = dump.find("released(1)") != std::string::npos;
  // Each slot's (index, producer, consumers, valid size, key, buffers), as numbers alone.
  std::string slots = dump.substr(dump.find('{'));
  auto const notNumber = [](char c) { return c != '-' && (c < '0' || c > '9'); };
  std::replace_if(slots.begin(), slots.end(), notNumber, ' ');
  std::istringstream fields(slots);
  uint64_t withBuffers = 0;
  for (long i, producer, consumers, valid, key, buffers;
       fields >> i >> producer >> consumers >> valid >> key >> buffers;) {
    check(producer == 0 && consumers == 0 && (!released || buffers == 0),
          "slot " + std::to_string(i) + " has users, or memory though released: " + dump);
    withBuffers += static_cast<uint64_t>(buffers);
  }
  uint64_t const heaps = qelcam::host::heapStats().heapsAlive - base.heapsAlive;
  check(heaps == withBuffers, std::to_string(heaps) + " heaps alive for: " + dump);
  for (uint32_t i = 0; !released && i < pool.getMaxSlotCount(); ++i) {
    produce(pool, 1000 + i);
  }
}

// Frame 100 in slot 0, which `reader` holds, and frame 101 in slot 1.
std::shared_ptr<Pool> slotZeroRead(SlotPtr* reader) {
  auto pool = newPool();
  produce(*pool, 100);
  *reader = pool->getConsumerBuffer(100, 0);
  produce(*pool, 101);
  return pool;
}

// A growth of the rotation against a release, and a resume if `resume`: the grown slot gets no
// memory in a released pool, and is allocated once.
void growthVsRelease(bool resume) {
  SlotPtr reader;
  auto pool = slotZeroRead(&reader);
  spawn("producer", [&] { produce(*pool, 102, {"held by consumers", "released"}); });
  spawn("client", [&] {
    pool->setPoolReleased();
    if (resume) {
      pool->setPoolResume();
    }
  });
  explore::joinAll();
  pool->setConsumerBuffer(reader);
  checkAtRest(*pool);
}

std::vector<explore::Scenario> const kScenarios = {
    // A release against the producer handing its slot back and then taking the next: a held slot
    // is freed when it comes back, a slot asked for is lent with its buffers or refused.
    {"release-vs-producer", 2,
     [] {
       auto pool = newPool();
       SlotPtr writing = pool->getProducerBuffer();
       spawn("producer", [&] {
         expect("setProducerBuffer", pool->setProducerBuffer(100, 1, writing) == 0);
         produce(*pool, 101, {"ok", "released"});
       });
       spawn("client", [&] { pool->setPoolReleased(); });
       checkAtRest(*pool);
     }},
    // A release against a consumer that returns slot 0 and borrows slot 1.
    {"release-vs-consumer", 2,
     [] {
       SlotPtr reader;
       auto pool = slotZeroRead(&reader);
       Hold held(reader);
       spawn("consumer", [&] {
         held.giveBack(*pool);
         // A borrow that passed the released mark just before the release task freed slot 1.
         borrow(*pool, 101, 1, {"ok", "released", "buffers released"});
       });
       spawn("client", [&] { pool->setPoolReleased(); });
       checkAtRest(*pool);
     }},
    {"growth-vs-release", 2, [] { growthVsRelease(false); }},
    {"growth-vs-release-and-resume", 2, [] { growthVsRelease(true); }},
    // The producer takes the newest slot while slot 0's consumer returns it.
    {"growth-at-last-slot-vs-slot-0-return", 2,
     [] {
       SlotPtr reader;
       auto pool = slotZeroRead(&reader);
       // Slot 0 is busy: the rotation grows by slot 2, and the producer goes round to it.
       produce(*pool, 102, {"held by consumers"});
       explore::settle();
       pool->setConsumerBuffer(reader);
       produce(*pool, 102);
       produce(*pool, 103);
       Hold held(pool->getConsumerBuffer(102, 0));
       spawn("producer", [&] { produce(*pool, 104); });
       spawn("consumer", [&] { held.giveBack(*pool); });
       checkAtRest(*pool);
     }},
    // The pool's last reference dropped while a growth is queued.
    {"last-reference-vs-queued-growth", 2,
     [] {
       SlotPtr reader;
       std::shared_ptr<Pool> producerRef = slotZeroRead(&reader);
       std::shared_ptr<Pool> clientRef = producerRef;
       spawn("producer", [&] {
         produce(*producerRef, 102, {"held by consumers"});
         producerRef.reset();
       });
       spawn("client", [&] { clientRef.reset(); });
       explore::joinAll();
       // The pool freed the held slot's buffers as it went; the slot object lives on.
       check(buffersOf(reader).empty(), "a held slot keeps buffers after the pool went");
     }},
    // createPool replaces a pool whose producer is still lending.
    {"create-pool-replacing-a-lending-pool", 2,
     [] {
       auto manager = std::make_shared<GainMapBufPoolMgrImp>();
       manager->createPool(kTwoSlots, false);
       explore::settle();
       auto old = std::static_pointer_cast<Pool>(manager->getPool(kSensor));
       SlotPtr writing = old->getProducerBuffer();
       spawn("producer", [&] {
         expect("setProducerBuffer", old->setProducerBuffer(100, 1, writing) == 0);
         produce(*old, 101);
         old.reset();
       });
       spawn("client", [&] { expect("createPool", manager->createPool(kTwoSlots, false) == 0); });
       explore::joinAll();
       // The replaced pool went with its last holder; the new one lends.
       auto fresh = std::static_pointer_cast<Pool>(manager->getPool(kSensor));
       check(fresh != nullptr, "no pool after createPool");
       checkAtRest(*fresh);
     }},
    // destroyAllPools while a consumer holds a slot and returns it.
    {"destroy-all-pools-while-a-slot-is-held", 2,
     [] {
       auto manager = std::make_shared<GainMapBufPoolMgrImp>();
       manager->createPool(kTwoSlots, false);
       explore::settle();
       auto pool = std::static_pointer_cast<Pool>(manager->getPool(kSensor));
       produce(*pool, 100);
       Hold held(pool->getConsumerBuffer(100, 0));
       spawn("consumer", [&] {
         held.giveBack(*pool);
         pool.reset();
       });
       spawn("client", [&] { expect("destroyAllPools", manager->destroyAllPools(kUniKey) == 0); });
       explore::joinAll();
       check(manager->getPool(kSensor) == nullptr, "getPool finds a destroyed pool");
     }},
    // A release and resume against a holder of a multi-mode slot, who reads it as clients do,
    // without the slot's lock: the resume, which reaches every slot of a multi-mode pool, must
    // write nothing there (ThreadSanitizer sees a write as a race).
    {"resume-vs-multi-mode-holder", 2,
     [] {
       auto pool =
           newPool({kSensor, {{0, MSize(5760, 160)}, {1, MSize(5760, 120)}}, 1, 1, kUniKey});
       SlotPtr writing = pool->getProducerBuffer();
       auto const tall = writing->buffersBySize.at(MSize(5760, 160));
       spawn("holder", [&] {
         for (char const* read : {"read", "read again"}) {
           explore::point(read);
           check(writing->useSizeMap && writing->buffersBySize.size() == 2 &&
                     writing->buffersBySize.at(MSize(5760, 160)) == tall,
                 "a multi-mode slot changed under its holder");
         }
       });
       spawn("client", [&] {
         pool->setPoolReleased();
         pool->setPoolResume();
       });
       explore::joinAll();
       expect("setProducerBuffer", pool->setProducerBuffer(5, 0, writing) == 0);
       // Locked buffers are dropped twice by design: the resume made the held slot a heap and
       // dropped its buffers of both modes, keeping the holder's; and the destructor leaves a
       // multi-mode slot's buffers to go with the slot object.
       base.buffersDroppedLocked += 4;
     }},
    // While the pool resumes, a frame produced, a slot held since before the release returned (it
    // keeps its memory) and a frame from before the release borrowed (it may get fresh memory).
    {"frames-flow-while-resuming", 1,
     [] {
       SlotPtr reader;
       auto pool = slotZeroRead(&reader);
       Hold held(reader);
       pool->setPoolReleased();
       explore::settle();
       spawn("producer", [&] { produce(*pool, 102, {"ok", "released", "held by consumers"}); });
       spawn("consumer", [&] {
         held.giveBack(*pool);
         borrow(*pool, 101, 1, {"ok", "released"});
       });
       spawn("client", [&] { pool->setPoolResume(); });
       checkAtRest(*pool);
     }},
};

// Every scenario ends with its pools gone and their memory with them: no heap and no locked
// buffer is left, and none was dropped locked.
std::vector<explore::Scenario> poolsGoneAfterEach(std::vector<explore::Scenario> scenarios) {
  for (explore::Scenario& scenario : scenarios) {
    scenario.body = [body = std::move(scenario.body)] {
      base = qelcam::host::heapStats();
      body();
      auto const now = qelcam::host::heapStats();
      check(now.heapsAlive == base.heapsAlive && now.buffersLocked == base.buffersLocked &&
                now.buffersDroppedLocked == base.buffersDroppedLocked,
            "memory outlives the pool, or buffers were dropped while locked");
    };
  }
  return scenarios;
}

}  // namespace

int main(int argc, char** argv) {
  // Refusals come by the thousand: no log line, but every refusal's reason, on its own thread.
  ULogger::sMode = 0;
  ULogger::sDetailsLevel = 1;
  ULogger* const logger = std::exchange(ULogger::sULogger, &lastLine);
  qelcam::host::TraceListener refusals(
      [](qelcam::host::TraceEvent const& event) {
        if (auto const* reason = event.find("reason")) {
          tRefusal = reason->text;
        }
      },
      NSCam::Utils::Trace::kInstants);
  int const status = explore::runMain(argc, argv, poolsGoneAfterEach(kScenarios));
  ULogger::sULogger = logger;
  return status;
}
