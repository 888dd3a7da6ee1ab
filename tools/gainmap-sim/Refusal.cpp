#include <string>

#include "Simulation.h"

namespace gainmapsim {
namespace {

constexpr char const* kRefusalTexts[kRefusalCount] = {
    "not initialised",
    "released",
    "not ready",
    "held by the producer",
    "held by consumers",
    "rotation at its maximum",
    "stale timestamp",
    "buffers released",
    "no buffers by design",
    "invalid index",
    "no slot in the rotation",
    "unexplained",
};

}  // namespace

char const* refusalText(Refusal refusal) {
  return kRefusalTexts[static_cast<size_t>(refusal)];
}

Refusal refusalOf(std::string const& text) {
  for (size_t i = 0; i < kRefusalCount; ++i) {
    if (text == kRefusalTexts[i]) {
      return static_cast<Refusal>(i);
    }
  }
  return Refusal::Unexplained;
}

uint64_t SensorReport::starved() const {
  uint64_t busy = 0;
  for (Refusal refusal : {Refusal::NotReady, Refusal::HeldByProducer, Refusal::HeldByConsumers,
                          Refusal::RotationAtMax}) {
    busy += producerRefusals[static_cast<size_t>(refusal)];
  }
  return busy;
}

}  // namespace gainmapsim
