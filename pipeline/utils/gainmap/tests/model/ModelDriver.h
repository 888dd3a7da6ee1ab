#pragma once

// Runs operation sequences through the library's exported interface and, step by step, checks
// what a client sees against the reference model: return values, the lines logged, every pool's
// dump, the fields of every slot the client holds, and the image memory alive.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <string>

namespace gainmap_model {

// Where the choices come from: a seeded generator or a fuzzer's bytes.
class ChoiceSource {
 public:
  virtual ~ChoiceSource() = default;
  // A value below `bound`, which is at least 1.
  virtual uint32_t below(uint32_t bound) = 0;
  // Nothing left to decide from; further choices are 0.
  virtual bool exhausted() const = 0;
};

// splitmix64: the same sequence for a seed on every platform and standard library.
class SeededSource : public ChoiceSource {
 public:
  explicit SeededSource(uint64_t seed) : mState(seed) {}
  uint32_t below(uint32_t bound) override;
  bool exhausted() const override { return false; }

 private:
  uint64_t mState;
};

class ByteSource : public ChoiceSource {
 public:
  ByteSource(uint8_t const* data, size_t size) : mData(data), mSize(size) {}
  uint32_t below(uint32_t bound) override;
  bool exhausted() const override { return mPos >= mSize; }

 private:
  uint8_t const* mData;
  size_t mSize;
  size_t mPos = 0;
};

// How often a run went through each part of the protocol, by name.
using Tally = std::map<std::string, uint64_t>;

class ModelDriver {
 public:
  // `trace`, when given, receives one line per step.
  ModelDriver(ChoiceSource& source, std::ostream* trace);
  ~ModelDriver();
  ModelDriver(ModelDriver const&) = delete;
  ModelDriver& operator=(ModelDriver const&) = delete;

  // One operation and the checks after it; false once the library and the model differ.
  bool step();
  // Lets go of everything, destroys every pool and checks that no memory is left.
  bool finish();
  // What differed, at which step and in which operation.
  std::string const& divergence() const;
  uint64_t steps() const;
  Tally const& tally() const;

 private:
  class Run;
  std::unique_ptr<Run> mRun;
};

}  // namespace gainmap_model
