#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "Options.h"
#include "Report.h"
#include "Simulation.h"
#include "camsys/ULog.h"

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
  // Refusals are part of the run and the library logs each one, so its lines stay out unless
  // asked for, by option or by choosing the logger's mode in the environment.
  if (!parsed.options.libraryLog && std::getenv("QELCAM_ULOG_MODE") == nullptr) {
    NSCam::Utils::ULog::ULogger::sMode = 0;
  }
  auto report = gainmapsim::runSimulation(parsed.options);
  gainmapsim::printReport(report, parsed.options, std::cout);
  return gainmapsim::isClean(report) ? 0 : 1;
}
