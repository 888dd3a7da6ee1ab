#pragma once

// Runs operation sequences through the library's exported interface and, step by step, checks
// what a client sees against the reference model: return values, the lines logged, every pool's
// dump, the fields of every slot the client holds, and the image memory alive.

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

namespace gainmap_model {

// Where the choices come from: a seeded splitmix64 generator, the same sequence for a seed on
// every platform and standard library, or a fuzzer's bytes.
class ChoiceSource {
 public:
  explicit ChoiceSource(uint64_t seed) : mState(seed) {}
  ChoiceSource(uint8_t const* data, size_t size) : mData(data), mSize(size), mBytes(true) {}
  // A value below `bound`, which is at least 1; 0 once the bytes are used up.
  uint32_t below(uint32_t bound);
  bool exhausted() const { return mBytes && mPos >= mSize; }

 private:
  uint64_t mState = 0;
  uint8_t const* mData = nullptr;
  size_t mSize = 0;
  size_t mPos = 0;
  bool mBytes = false;
};

// Runs up to `steps` operations from no pool (fewer once the source is exhausted), each followed
// by its checks, then lets go of everything, destroys every pool and checks that no memory is
// left. Returns what differed first, at which step and in which operation; empty when the library
// matched the model throughout. `trace`, when given, receives one line per step.
std::string runEpisode(ChoiceSource& source, uint64_t steps, std::ostream* trace);

}  // namespace gainmap_model
