#include <mutex>

#include "HostPlatform.h"
#include "camsys/Format.h"
#include "camsys/SensorInfo.h"

namespace {

class HostSensorInfoHelper : public NSCam::utility::ICamsysSensorInfoHelper {
 public:
  std::vector<int32_t> queryFormats(int32_t key) const override {
    if (key != kQueryGainMapFormats) {
      return {};
    }
    return qelcam::host::gainMapFormats();
  }
};

struct GainMapFormats {
  std::mutex mutex;
  std::vector<int32_t> formats{qelcam::host::kFormatGainMap8};
};

GainMapFormats& gainMapFormatStore() {
  static GainMapFormats store;
  return store;
}

}  // namespace

namespace NSCam {
namespace utility {

std::shared_ptr<ICamsysSensorInfoHelper> ICamsysSensorInfoHelper::getInstance() {
  static std::shared_ptr<ICamsysSensorInfoHelper> const instance =
      std::make_shared<HostSensorInfoHelper>();
  return instance;
}

}  // namespace utility

namespace Utils {
namespace Format {

int32_t queryPlaneBitsPerPixel(int format, unsigned long plane) {
  if (plane != 0) {
    return 0;
  }
  switch (format) {
    case qelcam::host::kFormatGainMap8:
    case qelcam::host::kFormatBlob:
      return 8;
    case qelcam::host::kFormatGainMap16:
      return 16;
    default:
      return 0;
  }
}

}  // namespace Format
}  // namespace Utils
}  // namespace NSCam

namespace qelcam {
namespace host {

void setGainMapFormats(std::vector<int32_t> const& formats) {
  GainMapFormats& store = gainMapFormatStore();
  std::lock_guard<std::mutex> lock(store.mutex);
  store.formats = formats;
}

std::vector<int32_t> gainMapFormats() {
  GainMapFormats& store = gainMapFormatStore();
  std::lock_guard<std::mutex> lock(store.mutex);
  return store.formats;
}

}  // namespace host
}  // namespace qelcam
