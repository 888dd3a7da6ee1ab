#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <limits>
#include <map>
#include <mutex>

#include "HostPlatform.h"
#include "camsys/Properties.h"

namespace {

std::string trimmed(std::string const& text) {
  size_t const first = text.find_first_not_of(" \t");
  if (first == std::string::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The system properties of the host: what QELCAM_PROPERTIES ("key=value;key=value") held at
// start-up, then whatever the host controls set.
struct PropertyStore {
  std::mutex mutex;
  std::map<std::string, std::string> values;

  PropertyStore() {
    char const* env = std::getenv("QELCAM_PROPERTIES");
    std::string const all = env != nullptr ? env : "";
    size_t begin = 0;
    while (begin <= all.size()) {
      size_t end = all.find(';', begin);
      if (end == std::string::npos) {
        end = all.size();
      }
      std::string const entry = all.substr(begin, end - begin);
      size_t const eq = entry.find('=');
      if (eq != std::string::npos && !trimmed(entry.substr(0, eq)).empty()) {
        values[trimmed(entry.substr(0, eq))] = entry.substr(eq + 1);
      }
      begin = end + 1;
    }
  }
};

PropertyStore& propertyStore() {
  static PropertyStore store;
  return store;
}

}  // namespace

namespace NSCam {
namespace Utils {
namespace Properties {

int32_t property_get_int32(char const* key, int32_t defaultValue) {
  if (key == nullptr) {
    return defaultValue;
  }
  std::string value;
  {
    PropertyStore& store = propertyStore();
    std::lock_guard<std::mutex> lock(store.mutex);
    auto it = store.values.find(key);
    if (it == store.values.end()) {
      return defaultValue;
    }
    value = it->second;
  }
  if (value.empty()) {
    return defaultValue;
  }
  char* end = nullptr;
  int const savedErrno = errno;
  errno = 0;
  intmax_t const result = std::strtoimax(value.c_str(), &end, 0);
  bool const overflow = errno == ERANGE;
  errno = savedErrno;
  if (overflow || end == value.c_str() || result < std::numeric_limits<int32_t>::min() ||
      result > std::numeric_limits<int32_t>::max()) {
    return defaultValue;
  }
  return static_cast<int32_t>(result);
}

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam

namespace qelcam {
namespace host {

void setProperty(std::string const& key, std::string const& value) {
  PropertyStore& store = propertyStore();
  std::lock_guard<std::mutex> lock(store.mutex);
  store.values[key] = value;
}

void clearProperty(std::string const& key) {
  PropertyStore& store = propertyStore();
  std::lock_guard<std::mutex> lock(store.mutex);
  store.values.erase(key);
}

}  // namespace host
}  // namespace qelcam
