#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ChromeTraceCheck.h"
#include "Options.h"

namespace {

using nlohmann::json;

std::string tempPath(std::string const& name) {
  // One file per test process: the plain and sanitizer builds may run side by side.
  std::string const path =
      ::testing::TempDir() + "gainmap_sim_" + std::to_string(getpid()) + "_" + name;
  std::remove(path.c_str());
  return path;
}

struct Run {
  int status = -1;     // the exit status; -1 when it did not exit
  std::string output;  // stdout and stderr
};

// Runs the simulator with `args`, after `environment` if any.
Run runSimulator(std::string const& args, std::string const& environment = "") {
  std::string const command = environment + " " GAINMAP_SIM_PATH " " + args + " 2>&1";
  Run run;
  FILE* pipe = popen(command.c_str(), "r");
  char chunk[4096];
  for (size_t n = 0; pipe != nullptr && (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
    run.output.append(chunk, n);
  }
  int const status = pipe != nullptr ? pclose(pipe) : -1;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// Runs the simulator with `args` and gives back the text of its figures' JSON.
std::string jsonOf(std::string const& args) {
  std::string const path = tempPath("figures.json");
  auto const run = runSimulator(args + " --quiet --json " + path);
  EXPECT_NE(run.status, 2) << args << "\n" << run.output;
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

json figuresOf(std::string const& args) {
  return json::parse(jsonOf(args), nullptr, false);
}

// Short runs see the pools grow from their first slots, and under the sanitizers checking a
// borrowed frame stretches every hold: starvation is not what these runs check.
constexpr char kRelaxed[] = " --quiet --max-starved 100";

// The sign of each cell of the table's row labelled `label`, one per sensor: "+" above 0, "0" at 0.
std::string signs(std::string const& output, std::string const& label) {
  size_t const at = output.find("\n" + label + "  ");
  std::istringstream row(at == std::string::npos ? "" : output.substr(at + label.size() + 1));
  std::string found;
  for (double cell; row.peek() != '\n' && row >> cell;) {
    found += cell > 0 ? "+" : "0";
  }
  return found;
}

// Each run's options and environment, its exit status, texts of its output, and rows of its table
// with their signs. The traced runs' files are valid and have every track.
TEST(GainMapSim, RunsReachTheirVerdictsAndFigures) {
  std::string const trace = tempPath("trace.json");
  std::string const noLeak = "image heaps left at exit 0, bytes left 0\n";
  struct Case {
    std::string args;
    std::string environment;
    int status;
    std::vector<std::string> texts;
    std::vector<std::pair<std::string, std::string>> rows;
  };
  std::vector<Case> const cases = {
      // The producer meets every release: refused as released, never without a reason.
      {"--duration 3 --release-period 1000 --release-time 200 --trace " + trace + kRelaxed,
       "",
       0,
       {"\nresult: clean\n", noLeak},
       {{"release cycles", "+++"},
        {"producer refused: released", "+++"},
        {"producer refused: unexplained", "000"},
        {"consumer refused: unexplained", "000"}}},
      // Traced by the environment, as any program can be.
      {std::string("--duration 4 --release-period 1000 --release-time 100 --reconfigure "
                   "--teardown --hold 100-150") +
           kRelaxed,
       "QELCAM_TRACE=" + trace,
       0,
       {"\nnote: reconfiguration: pools replaced while frames were in flight",
        "the replaced pools went with their last holder",
        "\nnote: client teardown: destroyAllPools ran while consumers held ",
        "they handed every slot back to the removed pools", noLeak},
       {}},
      // The diagnosis's text is the report's; here the run must reach it.
      {"--duration 2 --fps 240 --consumers 3 --hold 40-120 --release-period 0 --quiet"
       " --sensor id=0,modes=0:4000x3000,slots=2",
       "",
       1,
       {"\nstarvation: sensor 0: ", "\nFAILED: sensor 0 is starved"},
       {{"producer refused: rotation at its maximum", "+"}}},
      {"--help", "", 0, {"usage: gainmap-sim [options]\n", "\n  --sensor DESC"}, {}},
  };
  for (auto const& c : cases) {
    auto const run = runSimulator(c.args, c.environment);
    SCOPED_TRACE(c.args + "\n" + run.output);
    EXPECT_EQ(run.status, c.status);
    for (auto const& text : c.texts) {
      EXPECT_NE(run.output.find(text), std::string::npos) << text;
    }
    for (auto const& [label, expected] : c.rows) {
      EXPECT_EQ(signs(run.output, label), expected) << label;
    }
    if (c.args.find(trace) == std::string::npos && c.environment.empty()) {
      continue;
    }
    auto check = qelcam::host::checkChromeTrace(trace);
    EXPECT_TRUE(check.problems.empty()) << check.problemText();
    std::remove(trace.c_str());
    if (!c.environment.empty()) {
      continue;  // the simulator's own slices and flows go only to a file it is asked for
    }
    std::set<std::string> tracks;
    for (auto const& event : check.trace.value("traceEvents", json::array())) {
      std::string const phase = event["ph"];
      tracks.insert(phase + " " +
                    (phase == "M" ? event["args"].value("name", "") : event.value("name", "")));
    }
    for (std::string const expected :
         {"M gainmap-sim", "M prod s:0", "M cons s:0 #0", "M GMP_0", "b s:0 slot 0 producer",
          "b s:0 slot 0 consumer", "C s:0 rotation", "i refused: released", "s frame", "f frame",
          "B frame s:0", "B consume s:0", "B release s:0", "B resume s:0", "B destroy s:0"}) {
      EXPECT_EQ(tracks.count(expected), 1u) << expected;
    }
  }
}

TEST(GainMapSim, BadOptionsAreRefusedWithAClearMessageAndStatusTwo) {
  std::vector<std::pair<std::string, std::string>> const cases = {
      {"--frobnicate", "unknown option '--frobnicate'"},
      {"--fps abc", "--fps: 'abc' is not a whole number"},
      {"--fps=99999999999999999999", "--fps: 99999999999999999999 is out of range [1, 240]"},
      {"--hold 90-40", "--hold: minimum 90 exceeds maximum 40"},
      {"--release-period 100 --release-time 100",
       "--release-time 100 must be shorter than --release-period 100"},
      {"--sensor id=0", "--sensor 'id=0': a sensor needs id= and modes="},
      {"--sensor id=0,modes=0:16x16384", "size 16x16384 is too tall"},
      {"--sensor id=0,modes=0:4000x3000/0:3264x2448", "mode 0 is given twice"},
      {"--sensor id=0,modes=0:4000x3000,color=red", "unknown sensor field 'color'"},
      {"--sensor id=0,modes=0:4000x3000 --sensor id=0,modes=0:3264x2448",
       "sensor id 0 is given twice"},
      {"--json /nonexistent/dir/f.json", "cannot write the figures to /nonexistent/dir/f.json"},
      {"--virtual-time --trace t.json", "--trace needs real time"},
      {"--batches 2", "--batches lists the batch sizes of the sizing sweep: it needs --size"},
      {"--duration 5 --warm-up 5", "--warm-up 5 must be shorter than --duration 5"},
      {"--size --plot /nonexistent/dir/p.png", "cannot write the plot to /nonexistent/dir/p.png"},
  };
  for (auto const& [args, message] : cases) {
    auto const run = runSimulator(args);
    SCOPED_TRACE(args + "\n" + run.output);
    EXPECT_EQ(run.status, 2);
    // One line, the program's own.
    EXPECT_EQ(run.output.rfind("gainmap-sim: ", 0), 0u);
    EXPECT_NE(run.output.find(message), std::string::npos) << message;
    EXPECT_EQ(run.output.find('\n'), run.output.size() - 1);
  }
}

TEST(SimOptions, SensorOptionsReplaceTheDefaultsAndCarryEveryField) {
  auto const parsed = gainmapsim::parseOptions(
      {"--sensor", "id=-3,modes=0:4000x3000/7:4000x2250,batch=2,slots=4,lagging=1",
       "--sensor=id=9,modes=1:1920x1080,hold=lognormal:30:250", "--fps=60", "--hold", "5-6",
       "--size", "--batches", "1,4", "--warm-up=3", "--max-drop", "2"});

  ASSERT_EQ(parsed.kind, gainmapsim::ParseResult::Kind::Run) << parsed.error;
  gainmapsim::Options const& o = parsed.options;
  EXPECT_EQ(std::tuple(o.fps, o.hold.minMs, o.hold.maxMs, o.batches, o.warmUpSec, o.maxDropPercent),
            std::tuple(60, 5, 6, std::vector<uint32_t>{1, 4}, 3, 2));
  ASSERT_EQ(o.sensors.size(), 2u);
  auto const& [first, second] = std::tie(o.sensors[0], o.sensors[1]);
  EXPECT_EQ(first.modes, (std::map<uint32_t, NSCam::MSize>{{0, {4000, 3000}}, {7, {4000, 2250}}}));
  EXPECT_EQ(std::tuple(first.id, first.batch, first.slots, first.lagging, first.hold.has_value()),
            std::tuple(-3, 2u, 4u, true, false));
  EXPECT_EQ(second.modes, (std::map<uint32_t, NSCam::MSize>{{1, {1920, 1080}}}));
  EXPECT_EQ(std::tuple(second.id, second.batch, second.slots, second.lagging),
            std::tuple(9, 1u, 3u, false));
  ASSERT_TRUE(second.hold.has_value());
  EXPECT_EQ(std::tuple(second.hold->kind, second.hold->medianMs, second.hold->p99Ms),
            std::tuple(gainmapsim::HoldModel::Kind::Lognormal, 30, 250));
}

TEST(GainMapSimVirtualTime, TheSameSeedReplaysByteForByteAndAnotherSeedDoesNot) {
  std::string const args =
      "--virtual-time --duration 120 --fps 60 --release-period 1500 --release-time 300 "
      "--hold lognormal:30:150 --reconfigure --teardown --max-starved 100 "
      "--sensor id=0,modes=0:4000x3000 --sensor id=1,modes=0:4032x2268,batch=2,lagging=1,"
      "hold=20-60 --seed ";

  std::string const first = jsonOf(args + "3");
  auto const figures = json::parse(first, nullptr, false);

  EXPECT_EQ(jsonOf(args + "3"), first);
  EXPECT_NE(figuresOf(args + "4")["sensors"], figures["sensors"]);
  EXPECT_EQ(figures.value("result", ""), "clean") << first;
  EXPECT_FALSE(figures["sensors"][0].contains("latencyUs")) << "no wall-clock figure";
}

// Consumers that hold every frame for H seconds at F fps, taking each frame as it is published:
// a rotation of floor(H x F) + 1 slots never meets a busy slot. Growing to it drops frames, so
// counted from the start the smallest pool is about that size; after a warm-up long enough to
// grow, about half of it, since the rotation grows to twice its initial size.
TEST(GainMapSimSizing, ConstantHoldsNeedHoldTimesRatePlusOneSlotsOrHalfOnceGrown) {
  // Frames per second, hold in ms, and floor(H x F) + 1.
  for (auto [fps, hold, needed] : {std::tuple{30, "110", 4}, {60, "250", 16}, {24, "500", 13}}) {
    std::string const base = "--fps " + std::to_string(fps) + " --hold " + hold + "-" + hold +
                             " --release-period 0 --duration 20 --sensor id=0,modes=0:4000x3000";
    SCOPED_TRACE(base);

    auto const exact = figuresOf(base + ",slots=" + std::to_string(needed) + " --virtual-time");
    EXPECT_EQ(exact["sensors"][0]["producerRefused"]["held by consumers"], 0);
    EXPECT_EQ(exact["sensors"][0]["frames"]["dropped"], 0);
    for (auto const& [options, expected] :
         {std::pair{"--size ", needed}, std::pair{"--size --warm-up 10 ", (needed + 1) / 2}}) {
      auto const sweep = figuresOf(options + base)["sizing"][0];
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

  auto const cheap = figuresOf(args + "65")["sensors"][0];
  auto const dear = figuresOf(args + "200000")["sensors"][0];

  // Neither meets its rotation's maximum; only the dear one meets grown slots still allocating.
  EXPECT_EQ(cheap["producerRefused"]["rotation at its maximum"], 0);
  EXPECT_EQ(dear["producerRefused"]["rotation at its maximum"], 0);
  EXPECT_EQ(cheap["producerRefused"]["not ready"], 0);
  EXPECT_GT(dear["producerRefused"]["not ready"], 0);
  EXPECT_GT(dear["frames"]["dropped"], cheap["frames"]["dropped"]);
}

}  // namespace
