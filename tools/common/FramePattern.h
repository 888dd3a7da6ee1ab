#pragma once

// The bytes a test producer writes into a frame's buffers and its readers check: 64-bit words
// counting up from a seed of their own per frame key, buffer and plane, so that bytes of another
// frame, another buffer or another plane never pass for the expected ones.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qelcam {
namespace framepattern {

constexpr uint64_t kStep = 0x9E3779B97F4A7C15ull;

inline uint64_t seedOf(long key, size_t buffer, size_t plane) {
  uint64_t x = static_cast<uint64_t>(key) ^ (uint64_t{buffer} << 48) ^ (uint64_t{plane} << 60);
  x += kStep;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Every byte: the words, then as many bytes of the next word as fit.
inline void write(uint8_t* data, size_t size, uint64_t seed) {
  uint64_t word = seed;
  size_t offset = 0;
  for (; offset + sizeof word <= size; offset += sizeof word, word += kStep) {
    std::memcpy(data + offset, &word, sizeof word);
  }
  std::memcpy(data + offset, &word, size - offset);
}

inline bool matches(uint8_t const* data, size_t size, uint64_t seed) {
  uint64_t word = seed;
  size_t offset = 0;
  for (; offset + sizeof word <= size; offset += sizeof word, word += kStep) {
    if (std::memcmp(data + offset, &word, sizeof word) != 0) {
      return false;
    }
  }
  return std::memcmp(data + offset, &word, size - offset) == 0;
}

inline bool allZero(uint8_t const* data, size_t size) {
  return std::all_of(data, data + size, [](uint8_t byte) { return byte == 0; });
}

// A few words only, for runs too long to touch every byte: the first word, the last whole word
// and one chosen by the seed, each holding what the full pattern has there. A buffer shorter than
// a word is written whole.
inline size_t sparseWordCount(size_t size) {
  return size / sizeof(uint64_t);
}

template <typename Fn>
bool forSparseWords(size_t size, uint64_t seed, Fn&& fn) {
  size_t const words = sparseWordCount(size);
  for (size_t index : {size_t{0}, words - 1, static_cast<size_t>(seed % words)}) {
    if (!fn(index * sizeof(uint64_t), seed + kStep * index)) {
      return false;
    }
  }
  return true;
}

inline void writeSparse(uint8_t* data, size_t size, uint64_t seed) {
  if (sparseWordCount(size) == 0) {
    write(data, size, seed);
    return;
  }
  forSparseWords(size, seed, [data](size_t offset, uint64_t word) {
    std::memcpy(data + offset, &word, sizeof word);
    return true;
  });
}

inline bool matchesSparse(uint8_t const* data, size_t size, uint64_t seed) {
  if (sparseWordCount(size) == 0) {
    return matches(data, size, seed);
  }
  return forSparseWords(size, seed, [data](size_t offset, uint64_t word) {
    return std::memcmp(data + offset, &word, sizeof word) == 0;
  });
}

// The sparse words of `seed` are all zero: memory made afresh, as far as the sparse check sees.
inline bool zeroSparse(uint8_t const* data, size_t size, uint64_t seed) {
  if (sparseWordCount(size) == 0) {
    return allZero(data, size);
  }
  return forSparseWords(size, seed, [data](size_t offset, uint64_t) {
    return allZero(data + offset, sizeof(uint64_t));
  });
}

}  // namespace framepattern
}  // namespace qelcam
