// Runs the built qbvisa tool against the simulated bench as an engineer
// would, and compares everything it prints (the scan table, the error lines
// with their codes, the matrix pictures, batch runs) with a reviewed
// transcript, tests/data/tool_transcript.txt: a picture with one crosspoint
// marked in the wrong place shows as a difference.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string kRK420 = "GPIB0::5::INSTR";
const std::string kRK421 = "USB0::0x1A2B::0x0421::RK421001::INSTR";
const std::string kRK422 = "TCPIP0::192.168.1.22::inst0::INSTR";
const std::string kRK423 = "ASRL1::INSTR";

struct ToolRun {
  int status;
  std::string out, err;
};

// Arguments and paths here hold no single quote.
std::string quoted(const std::string &word) { return "'" + word + "'"; }

std::string slurp(const fs::path &file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

class ToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char pattern[] = "/tmp/qbvisa_tool_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    scratch_ = pattern;
  }
  static void TearDownTestSuite() { fs::remove_all(scratch_); }

  // Runs the tool built beside the tests (<build>/tools/qbvisa) with `input`
  // on standard input, on the built-in bench or on the one `benchJson` describes.
  static ToolRun tool(const std::vector<std::string> &args, const std::string &input = "",
                      const std::string &benchJson = "") {
    std::ofstream(scratch_ / "in") << input;
    std::ofstream(scratch_ / "bench.json") << benchJson;
    std::string command = "env -u QBSIM_BENCH -u COLUMNS ";
    if (!benchJson.empty()) command += "QBSIM_BENCH=" + quoted(scratch_ / "bench.json") + " ";
    command += quoted(fs::read_symlink("/proc/self/exe").parent_path().parent_path() /
                      "tools/qbvisa");
    for (const auto &arg : args) command += " " + quoted(arg);
    command += " <" + quoted(scratch_ / "in") + " >" + quoted(scratch_ / "out");
    const int raw = std::system((command + " 2>" + quoted(scratch_ / "err")).c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(scratch_ / "out"),
            slurp(scratch_ / "err")};
  }

  static inline fs::path scratch_;
};

// Sub-matrices 1, 3 and 5 fitted: the matrix's sub-matrices 1..3 are served
// by boards 0, 2 and 4, sub-matrices 4 and 5 are missing.
const std::string kPartlyFitted = R"({"version": 1, "resources": [{"name": "GPIB0::5::INSTR",
    "kind": "chassis", "chassis": {"model": "RK420", "presenceMask": 21}}]})";

struct ToolCall {
  std::vector<std::string> args;
  std::string input = "", bench = "";
  bool usage = false;  // wrong usage: only the exit status is kept
};

TEST_F(ToolTest, OutputMatchesTheReviewedTranscript) {
  const std::string r = kRK420 + " ";
  const ToolCall runs[] = {
      {{"scan"}},  // the chassis, not the foreign instrument
      // A library refusal: its code, its message and the point it concerns.
      // A bad item anywhere refuses the whole list; nothing is switched.
      {{"close", kRK420, "13!1"}}, {{"switch", kRK423, "--close", "1!1:2!2", "--open", "2!2"}},
      {{"close", kRK420, "1!1", "0!1"}}, {{"close", kRK420, "1!"}}, {{"close", kRK420, "1-1"}},
      {{"close", kRK420, "-1!1"}}, {{"close", kRK420, "1!1:2!2:3!3"}},
      {{"close", kRK420, "123456!1"}}, {{"close", kRK420, ",", " "}},
      {{}, "", "", true}, {{"frobnicate"}, "", "", true},
      {{"set", kRK421, "volume", "3"}, "", "", true}, {{"switch", kRK420}, "", "", true},
      // Corners in any order; a point named twice counts once.
      {{"close", kRK420, "3!4:1!2,1!2", "12!50", "--show"}},
      {{"close", kRK420, " 4!5 , 6!7,", "--show"}},
      {{"close", kRK420, "2!9:3!12,5!8:7!13", "--show"}},
      // The first six columns of an RK421 sub-matrix are wired in reverse.
      {{"close", kRK421, "1!1:1!6,2!6,3!7,4!12:5!13,10!48", "--show"}},
      // Wider than a line: only the sub-matrices with closed points are drawn.
      {{"close", kRK422, "1!1,4!96,2!2015:3!2016", "--show"}},
      {{"close", kRK423, "1!1,8!12,3!4:4!6", "--show"}},
      // Missing sub-matrices are drawn empty and refused.
      {{"open", kRK420}, "", kPartlyFitted},
      {{"close", kRK420, "1!1,2!12,12!30,3!21:4!22", "--show"}, "", kPartlyFitted},
      {{"close", kRK420, "1!1,1!31"}, "", kPartlyFitted},
      // One process, one chassis state, up to the first failure.
      {{"batch"}, "# one process, one chassis state\nopen " + r + "\nclose " + r +
                      "1!1:3!3\nrelease " + r + "'2!2'\nswitch " + r +
                      "--close 12!50 --open 1!1\nshow " + r + "\nclear " + r + "\nclose " + r +
                      "6!6 --show\nclose " + r + "1!99\nshow " + r + "\n"},
      // Settings only the RK421 carries: the others say why they are missing.
      {{"info", kRK420}}, {{"scpi", kRK420, "*IDN?", ":SYSTem:MODule?"}},
      {{"scpi", kRK421}, "\n:SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?\nquit\n*IDN?\n"},
  };
  std::ostringstream transcript;
  for (const ToolCall &run : runs) {
    transcript << "$ qbvisa";
    for (const auto &arg : run.args) transcript << " '" << arg << "'";
    const ToolRun done = tool(run.args, run.input, run.bench);
    transcript << (run.bench.empty() ? "" : "  (partly fitted bench)") << "\nexit "
               << done.status << "\n";
    if (run.usage) continue;
    transcript << done.out;
    std::istringstream err(done.err);
    for (std::string line; std::getline(err, line);) transcript << "! " << line << "\n";
  }
  const std::string golden = slurp(QBVISA_TEST_DATA "/tool_transcript.txt");
  if (transcript.str() == golden) return;
  std::ofstream("tool_transcript.actual.txt") << transcript.str();
  std::istringstream a(transcript.str()), g(golden);
  std::string lineA, lineG;
  while (std::getline(a, lineA) && std::getline(g, lineG) && lineA == lineG) {
  }
  ADD_FAILURE() << "first difference (whole output in tool_transcript.actual.txt):\n  tool: "
                << lineA << "\n  reviewed: " << lineG;
}

}  // namespace
