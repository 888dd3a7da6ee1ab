#pragma once

#include <cstdint>

namespace NSCam {
namespace Utils {
namespace Properties {

// The integer value of a system property; `defaultValue` when it is unset, not a number or out of
// the 32-bit range.
int32_t property_get_int32(char const* key, int32_t defaultValue);

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
