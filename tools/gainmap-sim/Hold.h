#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

#include "Options.h"

namespace gainmapsim {

// One consumer's hold times, drawn from its own seeded generator.
class HoldSampler {
 public:
  HoldSampler(HoldModel const& model, uint32_t seed)
      : mModel(model),
        mRandom(seed),
        mUniform(model.minMs, model.maxMs),
        mLognormal(std::log(std::max(model.medianMs, 1)), lognormalSigma(model)) {}

  int64_t nextNs() {
    if (mModel.kind == HoldModel::Kind::Uniform) {
      return int64_t{mUniform(mRandom)} * 1000000;
    }
    // The tail is cut at the longest hold --hold accepts.
    double const ms = std::min(mLognormal(mRandom), double{kMaxHoldMs});
    return static_cast<int64_t>(std::llround(ms * 1000.0)) * 1000;
  }

 private:
  static constexpr int kMaxHoldMs = 10000;
  // The 99th percentile of a standard normal distribution.
  static constexpr double kZ99 = 2.3263478740408408;

  static double lognormalSigma(HoldModel const& model) {
    if (model.kind != HoldModel::Kind::Lognormal || model.medianMs <= 0) {
      return 1.0;
    }
    return std::log(static_cast<double>(model.p99Ms) / model.medianMs) / kZ99;
  }

  HoldModel const mModel;
  std::mt19937 mRandom;
  std::uniform_int_distribution<int> mUniform;
  std::lognormal_distribution<double> mLognormal;
};

}  // namespace gainmapsim
