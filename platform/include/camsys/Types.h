#pragma once

#include <cstdint>

namespace NSCam {

// A size in pixels; both fields are signed like the rest of the camera stack's geometry.
struct MSize {
  int32_t w = 0;
  int32_t h = 0;

  MSize() = default;
  MSize(int32_t width, int32_t height) : w(width), h(height) {}
};

inline bool operator==(MSize const& a, MSize const& b) {
  return a.w == b.w && a.h == b.h;
}
inline bool operator!=(MSize const& a, MSize const& b) {
  return !(a == b);
}

}  // namespace NSCam
