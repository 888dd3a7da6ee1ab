#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "HostPlatform.h"
#include "Options.h"
#include "Report.h"
#include "Simulation.h"
#include "Sizing.h"
#include "camsys/ULog.h"

namespace {

// The sizing sweep: its table, its JSON and its plot. 0 when every sensor found its size.
int size(gainmapsim::Options const& options, std::ofstream& json) {
  if (!options.plotPath.empty() && !std::ofstream(options.plotPath)) {
    std::fprintf(stderr, "gainmap-sim: cannot write the plot to %s\n", options.plotPath.c_str());
    return 2;
  }
  auto const sweeps = gainmapsim::runSizing(options);
  gainmapsim::printSizing(sweeps, options, std::cout);
  auto const figures = gainmapsim::sizingJson(sweeps, options);
  if (json.is_open()) {
    json << figures.dump(2) << '\n';
  }
  std::string error;
  if (!options.plotPath.empty() && !gainmapsim::plotSizing(sweeps, options, error)) {
    std::fprintf(stderr, "gainmap-sim: %s\n", error.c_str());
    return 2;
  }
  return figures["result"] == "sized" ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  using gainmapsim::ParseResult;
  auto parsed = gainmapsim::parseOptions(std::vector<std::string>(argv + 1, argv + argc));
  if (parsed.kind == ParseResult::Kind::Help) {
    std::cout << gainmapsim::usage();
    return 0;
  }
  if (parsed.kind == ParseResult::Kind::Error) {
    std::fprintf(stderr, "gainmap-sim: %s (see --help)\n", parsed.error.c_str());
    return 2;
  }
  auto const& options = parsed.options;
  // Refusals are part of the run and the library logs each one, so its lines stay out unless
  // asked for, by option or by choosing the logger's mode in the environment.
  if (!options.libraryLog && std::getenv("QELCAM_ULOG_MODE") == nullptr) {
    NSCam::Utils::ULog::ULogger::sMode = 0;
  }
  if (!options.tracePath.empty() && !qelcam::host::startTrace(options.tracePath)) {
    std::fprintf(stderr, "gainmap-sim: cannot write the trace to %s (or QELCAM_TRACE is set)\n",
                 options.tracePath.c_str());
    return 2;
  }
  std::ofstream json;
  if (!options.jsonPath.empty()) {
    json.open(options.jsonPath);
    if (!json) {
      std::fprintf(stderr, "gainmap-sim: cannot write the figures to %s\n",
                   options.jsonPath.c_str());
      return 2;
    }
  }
  if (options.size) {
    return size(options, json);
  }
  auto report = options.virtualTime ? gainmapsim::runVirtualSimulation(options)
                                    : gainmapsim::runSimulation(options);
  qelcam::host::stopTrace();
  gainmapsim::printReport(report, options, std::cout);
  if (json.is_open()) {
    json << gainmapsim::reportJson(report, options).dump(2) << '\n';
  }
  return gainmapsim::isClean(gainmapsim::verdicts(report, options)) ? 0 : 1;
}
