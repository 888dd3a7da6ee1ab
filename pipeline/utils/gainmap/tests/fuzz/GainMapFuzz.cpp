// libFuzzer target: the input's bytes choose the model driver's operations on the library; a
// difference from the reference model, or a sanitizer report, is a crash.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ModelDriver.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  gainmap_model::ChoiceSource source(data, size);
  // Long inputs repeat what short ones reach; a bound keeps each run quick.
  std::string const divergence = gainmap_model::runEpisode(source, 400, nullptr);
  if (!divergence.empty()) {
    std::fprintf(stderr, "gainmap fuzz: the library and the model differ\n%s", divergence.c_str());
    std::abort();
  }
  return 0;
}
