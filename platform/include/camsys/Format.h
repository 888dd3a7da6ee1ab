#pragma once

#include <cstdint>

namespace NSCam {
namespace Utils {
namespace Format {

// Bits per pixel of one plane of an image format; 0 for an unknown format or plane.
int32_t queryPlaneBitsPerPixel(int format, unsigned long plane);

}  // namespace Format
}  // namespace Utils
}  // namespace NSCam
