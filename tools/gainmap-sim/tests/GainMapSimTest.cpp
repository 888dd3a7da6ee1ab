#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Run {
  bool exited = false;
  int status = -1;
  std::string output;
};

// Runs the simulator with `args` and collects its stdout, and its stderr too when asked.
Run runSimulator(std::string const& args, bool withStderr) {
  std::string command =
      std::string(GAINMAP_SIM_PATH) + " " + args + (withStderr ? " 2>&1" : " 2>/dev/null");
  Run run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return run;
  }
  char chunk[4096];
  size_t n = 0;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) {
    run.output.append(chunk, n);
  }
  int status = pclose(pipe);
  run.exited = WIFEXITED(status);
  run.status = run.exited ? WEXITSTATUS(status) : -1;
  return run;
}

// The table: each row's label and its cells, one per sensor and then the total.
using Table = std::map<std::string, std::vector<std::string>>;

Table parseTable(std::string const& output, std::vector<std::string> const& labels) {
  Table table;
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line)) {
    for (auto const& label : labels) {
      if (line.compare(0, label.size() + 1, label + " ") == 0) {
        std::istringstream cells(line.substr(label.size()));
        std::string cell;
        while (cells >> cell) {
          table[label].push_back(cell);
        }
      }
    }
  }
  return table;
}

std::vector<std::string> const kRows = {
    "frames produced",       "frames consumed", "producer: slot without buffers", "lost slots",
    "verification failures", "release cycles",  "image heaps left at exit",
};

TEST(GainMapSim, DefaultSensorsProduceAndConsumeCleanlyAcrossReleases) {
  auto run = runSimulator("--duration 3 --release-period 1000 --release-time 200 --quiet", false);

  ASSERT_TRUE(run.exited) << run.output;
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("result: clean"), std::string::npos) << run.output;
  auto table = parseTable(run.output, kRows);
  for (auto const& label : kRows) {
    ASSERT_EQ(table[label].size(), 4u) << label << "\n" << run.output;
  }
  for (size_t sensor = 0; sensor < 3; ++sensor) {
    EXPECT_GT(std::stoull(table["frames produced"][sensor]), 0u) << run.output;
    EXPECT_GT(std::stoull(table["frames consumed"][sensor]), 0u) << run.output;
    EXPECT_GT(std::stoull(table["release cycles"][sensor]), 0u) << run.output;
  }
  EXPECT_EQ(table["verification failures"][3], "0") << run.output;
  EXPECT_EQ(table["lost slots"][3], "0") << run.output;
  EXPECT_EQ(table["image heaps left at exit"][3], "0") << run.output;
}

TEST(GainMapSim, ASensorOfTwoModesLendsSlotsWhoseBuffersItsConsumersCannotBorrow) {
  auto run = runSimulator(
      "--duration 2 --consumers 2 --quiet"
      " --sensor id=5,modes=0:4000x3000,batch=3,slots=2,lagging=1"
      " --sensor id=-1,modes=0:4000x3000/1:4000x2250,batch=2,slots=2",
      false);

  ASSERT_TRUE(run.exited) << run.output;
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("sensor 5"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("sensor -1"), std::string::npos) << run.output;
  auto table = parseTable(run.output, kRows);
  ASSERT_EQ(table["frames produced"].size(), 3u) << run.output;
  EXPECT_GT(std::stoull(table["frames produced"][0]), 0u) << run.output;
  EXPECT_GT(std::stoull(table["frames consumed"][0]), 0u) << run.output;
  // The pool of two modes keeps its buffers by size: `buffers` stays empty, so the producer
  // hands every slot back with nothing valid and no consumer is ever lent one.
  EXPECT_GT(std::stoull(table["frames produced"][1]), 0u) << run.output;
  EXPECT_EQ(table["producer: slot without buffers"][1], table["frames produced"][1]) << run.output;
  EXPECT_EQ(table["frames consumed"][1], "0") << run.output;
  EXPECT_EQ(table["verification failures"][2], "0") << run.output;
  EXPECT_EQ(table["lost slots"][2], "0") << run.output;
  EXPECT_EQ(table["image heaps left at exit"][2], "0") << run.output;
}

TEST(GainMapSim, BadOptionsAreRefusedWithAClearMessageAndStatusTwo) {
  std::vector<std::pair<std::string, std::string>> const cases = {
      {"--frobnicate", "unknown option '--frobnicate'"},
      {"frames", "unknown option 'frames'"},
      {"--quiet=1", "option '--quiet' takes no value"},
      {"--duration", "option '--duration' needs a value"},
      {"--fps abc", "--fps: 'abc' is not a whole number"},
      {"--fps 30x", "--fps: '30x' is not a whole number"},
      {"--fps 0", "--fps: 0 is out of range [1, 240]"},
      {"--fps=99999999999999999999", "--fps: 99999999999999999999 is out of range [1, 240]"},
      {"--consumers -1", "--consumers: -1 is out of range [0, 16]"},
      {"--hold 50", "--hold: '50' is not MIN-MAX"},
      {"--hold 90-40", "--hold: minimum 90 exceeds maximum 40"},
      {"--release-period 100 --release-time 100",
       "--release-time 100 must be shorter than --release-period 100"},
      {"--sensor id=0", "--sensor 'id=0': a sensor needs id= and modes="},
      {"--sensor id=0,modes=", "modes: needs at least one MODE:WIDTHxHEIGHT"},
      {"--sensor id=0,modes=0:4000y3000", "size '4000y3000' is not WIDTHxHEIGHT"},
      {"--sensor id=0,modes=4000x3000", "mode '4000x3000' is not MODE:WIDTHxHEIGHT"},
      {"--sensor id=0,modes=0:0x3000", "width: 0 is out of range [1, 16384]"},
      {"--sensor id=0,modes=0:16x16384", "size 16x16384 is too tall"},
      {"--sensor id=0,modes=0:1152x1", "size 1152x1 is too flat"},
      {"--sensor id=0,modes=0:4000x3000/0:3264x2448", "mode 0 is given twice"},
      {"--sensor id=0,modes=0:4000x3000,color=red", "unknown sensor field 'color'"},
      {"--sensor id=0,id=1,modes=0:4000x3000", "field 'id' is given twice"},
      {"--sensor id=0,,modes=0:4000x3000", "field '' is not KEY=VALUE"},
      {"--sensor id=0,modes=0:4000x3000,batch=9", "batch: 9 is out of range [1, 8]"},
      {"--sensor id=0,modes=0:4000x3000,lagging=2", "lagging: 2 is out of range [0, 1]"},
      {"--sensor id=0,modes=0:4000x3000 --sensor id=0,modes=0:3264x2448",
       "sensor id 0 is given twice"},
  };
  for (auto const& [args, message] : cases) {
    auto run = runSimulator(args, true);

    ASSERT_TRUE(run.exited) << args << "\n" << run.output;
    EXPECT_EQ(run.status, 2) << args << "\n" << run.output;
    EXPECT_EQ(run.output.rfind("gainmap-sim: ", 0), 0u) << args << "\n" << run.output;
    EXPECT_NE(run.output.find(message), std::string::npos) << args << "\n" << run.output;
  }
}

TEST(GainMapSim, HelpPrintsTheUsageAndRunsNothing) {
  auto run = runSimulator("--help", false);

  ASSERT_TRUE(run.exited);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output.rfind("usage: gainmap-sim [options]", 0), 0u) << run.output;
  EXPECT_NE(run.output.find("--sensor DESC"), std::string::npos) << run.output;
  EXPECT_EQ(run.output.find("frames produced"), std::string::npos) << run.output;
}

}  // namespace
