// libFuzzer target: the input's bytes choose the operations that the model driver runs through
// the library's interface; any difference from the reference model, and any sanitizer report,
// is a crash.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "ModelDriver.h"

namespace {
// Long inputs repeat what short ones reach; a bound keeps each run quick.
constexpr uint64_t kMaxSteps = 400;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  gainmap_model::ByteSource source(data, size);
  gainmap_model::ModelDriver driver(source, nullptr);
  bool ok = true;
  while (ok && !source.exhausted() && driver.steps() < kMaxSteps) {
    ok = driver.step();
  }
  ok = ok && driver.finish();
  if (!ok) {
    std::fprintf(stderr, "gainmap fuzz: the library and the model differ\n%s",
                 driver.divergence().c_str());
    std::abort();
  }
  return 0;
}
