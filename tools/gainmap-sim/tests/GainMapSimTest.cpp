#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChromeTraceCheck.h"

namespace {

using nlohmann::json;

std::string tempPath(std::string const& name) {
  // One file per test process: the plain and sanitizer builds may run side by side.
  std::string const path =
      ::testing::TempDir() + "gainmap_sim_" + std::to_string(getpid()) + "_" + name;
  std::remove(path.c_str());
  return path;
}

// Runs the simulator with `args`, after `environment` if any. Gives back its exit status (-1 when
// it did not exit) and what it wrote to stdout and stderr.
std::pair<int, std::string> runSimulator(std::string const& args,
                                         std::string const& environment = "") {
  std::string const command = environment + " " GAINMAP_SIM_PATH " " + args + " 2>&1";
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  char chunk[4096];
  for (size_t n = 0; pipe != nullptr && (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
    output.append(chunk, n);
  }
  int const status = pipe != nullptr ? pclose(pipe) : -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// Runs the simulator with `args` and gives back its figures' JSON.
json figuresOf(std::string const& args) {
  std::string const path = tempPath("figures.json");
  auto const [status, output] = runSimulator(args + " --quiet --json " + path);
  EXPECT_NE(status, 2) << args << "\n" << output;
  return json::parse(std::ifstream(path), nullptr, false);
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
// with their signs. The traced runs' files are valid; the one asked for by --trace has every track.
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
      // Slots grown while frames keep coming are not ready until their dear allocation is done.
      {std::string("--virtual-time --fps 60 --hold 200-200 --release-period 0 --duration 10 "
                   "--sensor id=0,modes=0:4000x3000,slots=7 --alloc-cost-us 200000") +
           kRelaxed,
       "",
       0,
       {"queue steps take 200000 us per MiB allocated", noLeak},
       {{"producer refused: not ready", "+"}, {"producer refused: rotation at its maximum", "0"}}},
      {"--help", "", 0, {"usage: gainmap-sim [options]\n", "\n  --sensor DESC"}, {}},
  };
  for (auto const& c : cases) {
    auto const [status, output] = runSimulator(c.args, c.environment);
    SCOPED_TRACE(c.args + "\n" + output);
    EXPECT_EQ(status, c.status);
    for (auto const& text : c.texts) {
      EXPECT_NE(output.find(text), std::string::npos) << text;
    }
    for (auto const& [label, expected] : c.rows) {
      EXPECT_EQ(signs(output, label), expected) << label;
    }
    if (c.args.find(trace) == std::string::npos && c.environment.empty()) {
      continue;
    }
    auto const check = qelcam::host::checkChromeTrace(trace);
    EXPECT_EQ(check.problems, std::vector<std::string>{});
    std::remove(trace.c_str());
    if (!c.environment.empty()) {
      continue;  // the simulator's own slices and flows go only to a file it is asked for
    }
    // The library's own events are pinned by its trace test; these are the simulator's, and the
    // queue's worker named after the queue.
    std::set<std::string> missing = {
        "M prod s:0",  "M cons s:0 #0", "M GMP_0",       "s frame",      "f frame",
        "B frame s:0", "B consume s:0", "B release s:0", "B resume s:0", "B destroy s:0"};
    for (auto const& event : check.trace.value("traceEvents", json::array())) {
      std::string const phase = event["ph"];
      missing.erase(phase + " " + (phase == "M" ? event["args"] : event).value("name", ""));
    }
    EXPECT_EQ(missing, std::set<std::string>{});
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
      {"--json /nonexistent/dir/f.json", "cannot write the figures to /nonexistent/dir/f.json"},
      {"--batches 2", "--batches lists the batch sizes of the sizing sweep: it needs --size"},
  };
  for (auto const& [args, message] : cases) {
    auto const [status, output] = runSimulator(args);
    SCOPED_TRACE(args + "\n" + output);
    EXPECT_EQ(status, 2);
    // One line, the program's own.
    EXPECT_EQ(output.rfind("gainmap-sim: ", 0), 0u);
    EXPECT_NE(output.find(message), std::string::npos) << message;
    EXPECT_EQ(output.find('\n'), output.size() - 1);
  }
}

// Virtual time has no wall-clock figure: a replay gives every figure again.
TEST(GainMapSimVirtualTime, TheSameSeedReplaysEveryFigureAndAnotherSeedDoesNot) {
  std::string const args =
      "--virtual-time --duration 120 --fps 60 --release-period 1500 --release-time 300 "
      "--hold lognormal:30:150 --reconfigure --teardown --max-starved 100 "
      "--sensor id=0,modes=0:4000x3000 --sensor id=1,modes=0:4032x2268,batch=2,lagging=1,"
      "hold=20-60 --seed ";

  auto const figures = figuresOf(args + "3");

  EXPECT_EQ(figuresOf(args + "3"), figures);
  EXPECT_NE(figuresOf(args + "4")["sensors"], figures["sensors"]);
  EXPECT_EQ(figures.value("result", ""), "clean") << figures.dump();
}

// Consumers that hold every frame for H seconds at F fps, taking each frame as it is published:
// a rotation of floor(H x F) + 1 slots never meets a busy slot. Growing to it drops frames, so
// counted from the start the smallest pool is about that size; after a warm-up long enough to
// grow, about half of it, since the rotation grows to twice its initial size.
TEST(GainMapSimSizing, ConstantHoldsNeedHoldTimesRatePlusOneSlotsOrHalfOnceGrown) {
  std::string const base =
      "--fps 60 --hold 250-250 --release-period 0 --duration 20 --sensor id=0,modes=0:4000x3000";
  int const needed = 16;  // floor(0.25 s x 60 fps) + 1

  auto const exact = figuresOf(base + ",slots=16 --virtual-time");
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

}  // namespace
