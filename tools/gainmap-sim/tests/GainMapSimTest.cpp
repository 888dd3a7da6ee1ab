#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ChromeTraceCheck.h"

namespace {

// The table: each row's label and its cells, one per sensor.
using Table = std::map<std::string, std::vector<std::string>>;

Table parseTable(std::string const& output) {
  Table table;
  std::istringstream lines(output);
  std::string line;
  std::getline(lines, line);  // the run
  std::getline(lines, line);  // the sensors' header
  while (std::getline(lines, line) && line.rfind("process:", 0) != 0) {
    // Labels are separated from the first cell by at least two blanks.
    auto const end = line.find("  ");
    if (end == std::string::npos) {
      break;
    }
    std::istringstream cells(line.substr(end));
    auto& row = table[line.substr(0, end)];
    for (std::string cell; cells >> cell;) {
      row.push_back(cell);
    }
  }
  return table;
}

struct Run {
  bool exited = false;
  int status = -1;
  std::string output;
  Table table;

  uint64_t number(std::string const& label, size_t sensor) const {
    auto const row = table.find(label);
    return row != table.end() && sensor < row->second.size() ? std::stoull(row->second[sensor])
                                                             : ~uint64_t{0};
  }
};

// Runs the simulator with `args` (after `environment`, if any) and collects its stdout, and its
// stderr too when asked.
Run runSimulator(std::string const& args, bool withStderr, std::string const& environment = "") {
  std::string command = environment + " " + std::string(GAINMAP_SIM_PATH) + " " + args +
                        (withStderr ? " 2>&1" : " 2>/dev/null");
  Run run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return run;
  }
  char chunk[4096];
  for (size_t n = 0; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
    run.output.append(chunk, n);
  }
  int const status = pclose(pipe);
  run.exited = WIFEXITED(status);
  run.status = run.exited ? WEXITSTATUS(status) : -1;
  run.table = parseTable(run.output);
  return run;
}

// Every one of `sensors` sensors has a count above 0 in each row of `someRows` and 0 in each row
// of `noneRows`.
void expectRows(Run const& run, size_t sensors, std::initializer_list<char const*> someRows,
                std::initializer_list<char const*> noneRows) {
  for (size_t sensor = 0; sensor < sensors; ++sensor) {
    for (char const* label : someRows) {
      EXPECT_GT(run.number(label, sensor), 0u) << label << ", sensor " << sensor << run.output;
    }
    for (char const* label : noneRows) {
      EXPECT_EQ(run.number(label, sensor), 0u) << label << ", sensor " << sensor << run.output;
    }
  }
}

void expectTexts(Run const& run, int status, std::initializer_list<char const*> texts) {
  ASSERT_TRUE(run.exited) << run.output;
  EXPECT_EQ(run.status, status) << run.output;
  for (char const* text : texts) {
    EXPECT_NE(run.output.find(text), std::string::npos) << text << "\n" << run.output;
  }
}

std::string tempPath(std::string const& name) {
  // One file per test process: the plain and sanitizer builds may run side by side.
  std::string const path =
      ::testing::TempDir() + "gainmap_sim_" + std::to_string(getpid()) + "_" + name;
  std::remove(path.c_str());
  return path;
}

// Short runs see the pools grow from their first slots, and under the sanitizers checking a
// borrowed frame stretches every hold: starvation is not what these runs check.
constexpr char kRelaxed[] = " --quiet --max-starved 100";

TEST(GainMapSim, DefaultSensorsCarryTheirFramesCleanlyAcrossReleasesTracedOnEveryTrack) {
  std::string const tracePath = tempPath("trace.json");
  std::string const jsonPath = tempPath("figures.json");
  auto run = runSimulator("--duration 3 --release-period 1000 --release-time 200 --trace " +
                              tracePath + " --json " + jsonPath + kRelaxed,
                          false);

  expectTexts(run, 0, {"\nresult: clean\n", "image heaps left at exit 0, bytes left 0"});
  // The producer meets every release: refused as released, never without a reason.
  expectRows(run, 3,
             {"frames produced", "frames consumed", "release cycles", "producer refused: released"},
             {"producer refused: unexplained", "consumer refused: unexplained", "corrupted frames",
              "lost slots"});
  auto check = qelcam::host::checkChromeTrace(tracePath);
  ASSERT_TRUE(check.problems.empty()) << check.problemText();
  std::set<std::string> seen;
  for (auto const& event : check.trace["traceEvents"]) {
    std::string const phase = event["ph"];
    std::string const name = event.value("name", "");
    seen.insert(phase + " " + (phase == "M" ? event["args"]["name"].get<std::string>() : name));
  }
  for (std::string const expected :
       {"M gainmap-sim", "M prod s:0", "M cons s:0 #0", "M GMP_0", "b s:0 slot 0 producer",
        "b s:0 slot 0 consumer", "C s:0 rotation", "C s:0 busy", "C s:0 image",
        "i refused: released", "s frame", "f frame", "B frame s:0", "B consume s:0",
        "B getProducerBuffer s:0", "B setConsumerBuffer s:0", "B release s:0", "B resume s:0",
        "B destroy s:0"}) {
    EXPECT_EQ(seen.count(expected), 1u) << expected;
  }
  std::ifstream figures(jsonPath);
  auto const json = nlohmann::json::parse(figures, nullptr, false);
  ASSERT_FALSE(json.is_discarded());
  EXPECT_EQ(json["sensors"][2]["frames"]["produced"], run.number("frames produced", 2));
  EXPECT_EQ(json["sensors"][2]["producerRefused"]["released"],
            run.number("producer refused: released", 2));
  EXPECT_EQ(json["result"], "clean");
}

TEST(GainMapSim, ASensorOfTwoModesIsReportedUnableToCarryDataAndTheRunIsNotClean) {
  auto run = runSimulator(std::string("--duration 2 --consumers 2") + kRelaxed +
                              " --sensor id=5,modes=0:4000x3000,batch=3,slots=2,lagging=1"
                              " --sensor id=-1,modes=0:4000x3000/1:4000x2250,batch=2,slots=2",
                          false);

  expectTexts(run, 1,
              {"FAILED: sensor -1 cannot carry data through `buffers`: its pool has 2 sensor modes",
               "\nresult: FAILED\n"});
  EXPECT_EQ(run.output.find("FAILED: sensor 5"), std::string::npos) << run.output;
  EXPECT_GT(run.number("frames consumed", 0), 0u) << run.output;
  // The pool of two modes keeps its buffers by size: `buffers` stays empty, so the producer
  // hands every slot back with nothing valid and every consumer is refused by design.
  EXPECT_GT(run.number("frames produced", 1), 0u) << run.output;
  EXPECT_EQ(run.number("producer: slots lent without buffers", 1), run.number("frames produced", 1))
      << run.output;
  EXPECT_EQ(run.number("frames consumed", 1), 0u) << run.output;
  EXPECT_GT(run.number("consumer refused: no buffers by design", 1), 0u) << run.output;
}

TEST(GainMapSim, AProducerStarvedByLongHoldsAtHighRateIsDiagnosedAndFails) {
  auto run = runSimulator(
      "--duration 2 --fps 240 --consumers 3 --hold 40-120 --release-period 0 --quiet"
      " --sensor id=0,modes=0:4000x3000,slots=2",
      false);

  // The diagnosis's text is the report's; here the run must reach it.
  expectTexts(run, 1, {"starvation: sensor 0: ", "FAILED: sensor 0 is starved"});
  expectRows(run, 1, {"producer refused: rotation at its maximum"}, {});
  EXPECT_EQ(run.number("slots at most", 0), 4u) << run.output;
  EXPECT_GT(run.number("frames dropped", 0), run.number("frames produced", 0)) << run.output;
}

// Traced by the environment, as any program can be.
TEST(GainMapSim, PoolsReplacedAndThenTornDownWhileConsumersHoldSlotsLoseNothing) {
  std::string const tracePath = tempPath("environment.json");
  auto run = runSimulator(
      std::string("--duration 4 --release-period 1000 --release-time 100 --reconfigure "
                  "--teardown --hold 100-150") +
          kRelaxed,
      false, "QELCAM_TRACE=" + tracePath);

  expectTexts(run, 0,
              {"note: reconfiguration: pools replaced while frames were in flight",
               "the replaced pools went with their last holder",
               "note: client teardown: destroyAllPools ran while consumers held ",
               "they handed every slot back to the removed pools",
               "image heaps left at exit 0, bytes left 0"});
  expectRows(run, 3, {"getPool: empty after teardown"}, {"getPool: empty", "lost slots"});
  auto check = qelcam::host::checkChromeTrace(tracePath);
  EXPECT_TRUE(check.problems.empty()) << check.problemText();
  EXPECT_GT(check.trace["traceEvents"].size(), 0u);
}

TEST(GainMapSim, BadOptionsAreRefusedWithAClearMessageAndStatusTwo) {
  std::vector<std::pair<std::string, std::string>> const cases = {
      {"--frobnicate", "unknown option '--frobnicate'"},
      {"--quiet=1", "option '--quiet' takes no value"},
      {"--duration", "option '--duration' needs a value"},
      {"--fps abc", "--fps: 'abc' is not a whole number"},
      {"--fps=99999999999999999999", "--fps: 99999999999999999999 is out of range [1, 240]"},
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
      {"--sensor id=0,modes=0:4000x3000 --sensor id=0,modes=0:3264x2448",
       "sensor id 0 is given twice"},
      {"--json=", "--json: needs a file name"},
      {"--trace /nonexistent/dir/t.json", "cannot write the trace to /nonexistent/dir/t.json"},
      {"--json /nonexistent/dir/f.json", "cannot write the figures to /nonexistent/dir/f.json"},
      {"--hold lognormal:40", "--hold: 'lognormal:40' is not lognormal:MEDIAN:P99"},
      {"--hold lognormal:90:40", "--hold: p99 40 is below the median 90"},
      {"--sensor id=0,modes=0:4000x3000,hold=9", "hold: '9' is not MIN-MAX or lognormal"},
      {"--max-drop 101", "--max-drop: 101 is out of range [0, 100]"},
      {"--batches 1,9", "--batches: 9 is out of range [1, 8]"},
      {"--virtual-time --trace t.json", "--trace needs real time"},
      {"--plot p.png", "--plot draws the sizing sweep: it needs --size"},
      {"--batches 2", "--batches lists the batch sizes of the sizing sweep: it needs --size"},
      {"--size --reconfigure", "--size sweeps plain pools"},
      {"--duration 5 --warm-up 5", "--warm-up 5 must be shorter than --duration 5"},
      {"--size --plot /nonexistent/dir/p.png", "cannot write the plot to /nonexistent/dir/p.png"},
  };
  for (auto const& [args, message] : cases) {
    auto run = runSimulator(args, true);

    SCOPED_TRACE(args);
    expectTexts(run, 2, {message.c_str()});
    // One line, the program's own.
    EXPECT_EQ(run.output.rfind("gainmap-sim: ", 0), 0u) << run.output;
    EXPECT_EQ(run.output.find('\n'), run.output.size() - 1) << run.output;
  }
}

// Runs the simulator with `args` and a JSON file, and gives back that file's text.
std::string jsonOf(std::string const& args, std::string const& name) {
  std::string const path = tempPath(name);
  auto run = runSimulator(args + " --quiet --json " + path, false);
  EXPECT_TRUE(run.exited && run.status != 2) << args << "\n" << run.output;
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

nlohmann::json parsedJsonOf(std::string const& args, std::string const& name) {
  return nlohmann::json::parse(jsonOf(args, name), nullptr, false);
}

TEST(GainMapSimVirtualTime, TheSameSeedReplaysByteForByteAndAnotherSeedDoesNot) {
  std::string const args =
      "--virtual-time --duration 120 --fps 60 --release-period 1500 --release-time 300 "
      "--hold lognormal:30:150 --reconfigure --teardown --max-starved 100 "
      "--sensor id=0,modes=0:4000x3000 --sensor id=1,modes=0:4032x2268,batch=2,lagging=1,"
      "hold=20-60 --seed ";

  std::string const first = jsonOf(args + "3", "first.json");
  std::string const second = jsonOf(args + "3", "second.json");
  std::string const other = jsonOf(args + "4", "other.json");

  auto const json = nlohmann::json::parse(first, nullptr, false);
  ASSERT_FALSE(json.is_discarded()) << first;
  EXPECT_EQ(first, second);
  EXPECT_NE(json["sensors"], nlohmann::json::parse(other, nullptr, false)["sensors"]);
  EXPECT_EQ(json["result"], "clean") << first;
  EXPECT_GT(json["sensors"][1]["frames"]["consumed"], 0);
  EXPECT_FALSE(json["sensors"][0].contains("latencyUs"));
  EXPECT_EQ(json["scenarios"]["replacedPoolsAlive"], 0);
}

// Consumers that hold every frame for H seconds at F fps, taking each frame as it is published:
// a rotation of floor(H x F) + 1 slots never meets a busy slot. Growing to it drops frames, so
// counted from the start the smallest pool is about that size; after a warm-up long enough to
// grow, about half of it, since the rotation grows to twice its initial size.
TEST(GainMapSimSizing, ConstantHoldsNeedHoldTimesRatePlusOneSlotsOrHalfOnceGrown) {
  // Frames per second, hold in ms, and floor(H x F) + 1.
  for (auto [fps, hold, needed] : {std::tuple{30, "110", 4}, {60, "250", 16}, {24, "500", 13}}) {
    std::string const base = "--fps " + std::to_string(fps) + " --hold " + hold + "-" + hold +
                             " --release-period 0 --duration 20 ";
    std::string const sensor = "--sensor id=0,modes=0:4000x3000";
    SCOPED_TRACE(base);

    auto const exact = parsedJsonOf(
        base + "--virtual-time " + sensor + ",slots=" + std::to_string(needed), "exact.json");
    auto const cold = parsedJsonOf("--size " + base + sensor, "cold.json");
    auto const warm = parsedJsonOf("--size --warm-up 10 " + base + sensor, "warm.json");

    EXPECT_EQ(exact["sensors"][0]["producerRefused"]["held by consumers"], 0);
    EXPECT_EQ(exact["sensors"][0]["frames"]["dropped"], 0);
    for (auto const& [json, expected] :
         {std::pair{cold, needed}, std::pair{warm, (needed + 1) / 2}}) {
      auto const& sweep = json["sizing"][0];
      int const answer = sweep["answer"].get<int>();
      EXPECT_LE(std::abs(answer - expected), 1) << sweep.dump();
      ASSERT_EQ(sweep["rows"].size(), static_cast<size_t>(answer)) << sweep.dump();
      for (auto const& row : sweep["rows"]) {
        EXPECT_EQ(row["dropped"] == 0, row["slots"] == answer) << row.dump();
      }
    }
  }
}

TEST(GainMapSimVirtualTime, ADearerAllocationDropsMoreFramesWhileThePoolGrows) {
  std::string const args =
      "--virtual-time --fps 60 --hold 200-200 --release-period 0 --duration 10 --max-starved 100 "
      "--sensor id=0,modes=0:4000x3000,slots=7 --alloc-cost-us ";

  auto const cheap = parsedJsonOf(args + "65", "cheap.json")["sensors"][0];
  auto const dear = parsedJsonOf(args + "200000", "dear.json")["sensors"][0];

  EXPECT_EQ(cheap["producerRefused"]["rotation at its maximum"], 0);
  EXPECT_EQ(dear["producerRefused"]["rotation at its maximum"], 0);
  EXPECT_EQ(cheap["producerRefused"]["not ready"], 0);
  EXPECT_GT(dear["producerRefused"]["not ready"], 0);
  EXPECT_GT(dear["frames"]["dropped"], cheap["frames"]["dropped"]);
}

TEST(GainMapSim, HelpPrintsTheUsageAndRunsNothing) {
  auto run = runSimulator("--help", false);

  expectTexts(run, 0, {"--sensor DESC"});
  EXPECT_EQ(run.output.rfind("usage: gainmap-sim [options]", 0), 0u) << run.output;
  EXPECT_EQ(run.output.find("frames produced"), std::string::npos) << run.output;
}

}  // namespace
