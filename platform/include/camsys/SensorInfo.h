#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace NSCam {
namespace utility {

class ICamsysSensorInfoHelper {
 public:
  // Query key of the image formats usable for gain maps, best first.
  static constexpr int32_t kQueryGainMapFormats = 0x601;

  virtual ~ICamsysSensorInfoHelper() = default;
  static std::shared_ptr<ICamsysSensorInfoHelper> getInstance();

  // The formats the device supports for the queried purpose; empty when it has none.
  virtual std::vector<int32_t> queryFormats(int32_t key) const = 0;
};

}  // namespace utility
}  // namespace NSCam
