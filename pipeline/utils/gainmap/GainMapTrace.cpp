#include "GainMapTrace.h"

#include <string>

namespace gainmap {
namespace trace {
namespace {

namespace service = NSCam::Utils::Trace;

constexpr char kSlotCategory[] = "gainmap.slot";

std::string sensorName(int32_t sensorId) {
  return "s:" + std::to_string(sensorId);
}

std::string slotTrack(int32_t sensorId, Slot const* slot, char const* holder) {
  return sensorName(sensorId) + " slot " + std::to_string(slot->index) + " " + holder;
}

// Slot objects live as long as anyone holds them, so their address tells concurrent pools'
// slots apart, a replaced pool's included.
uint64_t slotId(Slot const* slot) {
  return reinterpret_cast<uintptr_t>(slot);
}

void busy(int32_t sensorId, Slot const* slot, bool isBusy) {
  service::counterPart(sensorName(sensorId) + " busy", "slots", static_cast<int64_t>(slotId(slot)),
                       isBusy ? 1 : 0);
}

}  // namespace

void Slice::begin(char const* call, int32_t sensorId) {
  service::beginSlice(std::string(call) + " " + sensorName(sensorId));
}

void Slice::end(int index, bool hasKey, int64_t key) {
  if (hasKey) {
    service::endSlice({{"slot", index}, {"key", key}});
  } else {
    service::endSlice({{"slot", index}});
  }
}

void refused(char const* call, int32_t sensorId, char const* reason, int index) {
  service::instant(std::string("refused: ") + reason,
                   {{"call", call}, {"reason", reason}, {"sensor", sensorId}, {"slot", index}});
}

void producerTakes(int32_t sensorId, Slot const* slot) {
  service::asyncBegin(kSlotCategory, slotTrack(sensorId, slot, "producer"), slotId(slot),
                      {{"slot", slot->index}});
  busy(sensorId, slot, true);
}

void producerReturns(int32_t sensorId, Slot const* slot, long key) {
  service::asyncEnd(kSlotCategory, slotTrack(sensorId, slot, "producer"), slotId(slot),
                    {{"key", key}});
  busy(sensorId, slot, false);
}

void consumerTakes(int32_t sensorId, Slot const* slot, long key, size_t consumers) {
  service::asyncBegin(
      kSlotCategory, slotTrack(sensorId, slot, "consumer"), slotId(slot),
      {{"slot", slot->index}, {"key", key}, {"consumers", static_cast<int64_t>(consumers)}});
  busy(sensorId, slot, true);
}

void consumerReturns(int32_t sensorId, Slot const* slot, size_t consumersLeft) {
  service::asyncEnd(kSlotCategory, slotTrack(sensorId, slot, "consumer"), slotId(slot),
                    {{"consumers", static_cast<int64_t>(consumersLeft)}});
  busy(sensorId, slot, consumersLeft != 0);
}

void holdsDropped(int32_t sensorId, Slot const* slot, bool producer, size_t consumers) {
  if (producer) {
    service::asyncEnd(kSlotCategory, slotTrack(sensorId, slot, "producer"), slotId(slot),
                      {{"pool destroyed", 1}});
  }
  for (size_t i = 0; i < consumers; ++i) {
    service::asyncEnd(kSlotCategory, slotTrack(sensorId, slot, "consumer"), slotId(slot),
                      {{"pool destroyed", 1}});
  }
  busy(sensorId, slot, false);
}

void rotation(int32_t sensorId, uint32_t slots) {
  service::counter(sensorName(sensorId) + " rotation", "slots", slots);
}

void slotBytes(int32_t sensorId, Slot const* slot, uint64_t bytes) {
  service::counterPart(sensorName(sensorId) + " image", "bytes", static_cast<int64_t>(slotId(slot)),
                       static_cast<int64_t>(bytes));
}

}  // namespace trace
}  // namespace gainmap
