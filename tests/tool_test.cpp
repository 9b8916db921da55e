// Runs the built qbvisa tool against the default simulated bench and reads
// its output as an engineer would: the scan table, the error lines, the
// matrix picture.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using Points = std::set<std::pair<int, int>>;

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

// The crosspoints of comma-separated "R!C" items and "R1!C1:R2!C2" rectangles
// (smaller corner first).
Points expand(const std::string &list) {
  Points points;
  std::istringstream items(list);
  for (std::string item; std::getline(items, item, ',');) {
    int r1 = 0, c1 = 0, r2 = 0, c2 = 0;
    if (std::sscanf(item.c_str(), "%d!%d:%d!%d", &r1, &c1, &r2, &c2) == 2) r2 = r1, c2 = c1;
    for (int r = r1; r <= r2; ++r)
      for (int c = c1; c <= c2; ++c) points.insert({r, c});
  }
  return points;
}

// The crosspoints marked 'X' in the picture: the row number starts its line,
// the column number stands vertically in the digit lines above it.
Points closedInPicture(const std::string &picture) {
  static const std::regex rowLine(R"(^ *(\d+)  [.X\- ]+$)"), digitLine(R"(^[\d ]*\d[\d ]*$)");
  Points closed;
  std::vector<std::string> header;
  bool afterRows = false;
  std::istringstream lines(picture);
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (std::regex_match(line, match, rowLine)) {
      for (size_t i = match.position(1) + match.length(1); i < line.size(); ++i) {
        if (line[i] != 'X') continue;
        std::string digits;
        for (const auto &above : header)
          if (i < above.size() && above[i] != ' ') digits += above[i];
        closed.insert({std::stoi(match[1]), digits.empty() ? -1 : std::stoi(digits)});
      }
      afterRows = true;
      continue;
    }
    const bool digits = std::regex_match(line, digitLine);
    if (afterRows || !digits) header.clear();
    if (digits) header.push_back(line);
    afterRows = false;
  }
  return closed;
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

TEST_F(ToolTest, ScanListsTheChassisAndNotTheForeignInstrument) {
  const ToolRun run = tool({"scan"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(run.out,
              AllOf(ContainsRegex("\nGPIB0::5::INSTR +RK420 +1050\n"),
                    ContainsRegex("\nASRL1::INSTR +RK423 +1098\n"), Not(HasSubstr("GPIB0::9::"))));
}

TEST_F(ToolTest, FailuresPrintTheLibraryMessageWithItsCodeAndExitNonZero) {
  const std::string bad = "error -10021: Point Definition Error (bad point ";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      // A library refusal: its code, its message and the point it concerns.
      {{"close", kRK420, "13!1"}, "error -10007: Matrix row value out of range (point '13!1'"},
      {{"switch", kRK423, "--close", "1!1:2!2", "--open", "2!2"}, "error -10021"},
      // A bad item anywhere refuses the whole list.
      {{"close", kRK420, "1!1", "0!1"}, bad + "'0!1': rows and columns count from 1)"},
      {{"close", kRK420, "1!"}, bad + "'1!': column is missing)"},
      {{"close", kRK420, "1-1"}, bad + "'1-1': expected ROW!COLUMN"},
      {{"close", kRK420, "-1!1"}, bad + "'-1!1': row '-1' is not a number)"},
      {{"close", kRK420, "1!1:2!2:3!3"}, bad + "'1!1:2!2:3!3': a rectangle has two corners)"},
      {{"close", kRK420, "123456!1"}, bad + "'123456!1': row 123456 is too large)"},
      {{"close", kRK420, ",", " "}, bad + "'': no crosspoint given)"},
  };
  for (const auto &[args, message] : cases) {
    const ToolRun run = tool(args);
    EXPECT_EQ(run.status, 1) << message;
    EXPECT_THAT(run.err, HasSubstr(message));
    EXPECT_EQ(run.out, "") << message;  // nothing switched
  }
  for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"set", kRK421, "volume", "3"}, {"switch", kRK420}})
    EXPECT_EQ(tool(args).status, 2) << "wrong usage: " << (args.empty() ? "" : args[0]);
}

TEST_F(ToolTest, ShowMarksExactlyTheClosedCrosspointsOnEveryModel) {
  struct Case {
    std::vector<std::string> args;
    const char *closed;
    const char *note = "";
  };
  const Case cases[] = {
      // Corners in any order; a point named twice counts once.
      {{"close", kRK420, "3!4:1!2,1!2", "12!50", "--show"}, "1!2:3!4,12!50"},
      {{"close", kRK420, " 4!5 , 6!7,", "--show"}, "4!5,6!7"},
      {{"close", kRK420, "2!9:3!12,5!8:7!13", "--show"}, "2!9:3!12,5!8:7!13", " of at most 400\n"},
      // The first six columns of an RK421 sub-matrix are wired in reverse.
      {{"close", kRK421, "1!1:1!6,2!6,3!7,4!12:5!13,10!48", "--show"},
       "1!1:1!6,2!6,3!7,4!12:5!13,10!48", " of at most 270\n"},
      // Wider than a line: only the sub-matrices with closed points are drawn.
      {{"close", kRK422, "1!1,4!96,2!2015:3!2016", "--show"}, "1!1,4!96,2!2015:3!2016",
       "(no closure limit"},
      {{"close", kRK423, "1!1,8!12,3!4:4!6", "--show"}, "1!1,8!12,3!4:4!6", "(no closure limit"},
  };
  for (const Case &c : cases) {
    const ToolRun run = tool(c.args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");  // the chassis holds what was asked
    const Points expected = expand(c.closed);
    EXPECT_EQ(closedInPicture(run.out), expected) << run.out;
    EXPECT_THAT(run.out, AllOf(HasSubstr(c.note), HasSubstr("closed crosspoints: " +
                                                            std::to_string(expected.size()))));
  }
}

TEST_F(ToolTest, SubMatricesThatAreNotFittedAreDrawnEmptyAndRefused) {
  // Sub-matrices 1, 3 and 5 fitted: the matrix's sub-matrices 1..3 are
  // served by boards 0, 2 and 4, sub-matrices 4 and 5 are missing.
  const std::string bench = R"({"version": 1, "resources": [{"name": "GPIB0::5::INSTR",
      "kind": "chassis", "chassis": {"model": "RK420", "presenceMask": 21}}]})";
  EXPECT_THAT(tool({"open", kRK420}, "", bench).out, HasSubstr("3 fitted, on boards 0 2 4"));
  const ToolRun run = tool({"close", kRK420, "1!1,2!12,12!30,3!21:4!22", "--show"}, "", bench);
  EXPECT_EQ(closedInPicture(run.out), expand("1!1,2!12,12!30,3!21:4!22")) << run.err;
  EXPECT_THAT(run.out, HasSubstr("\n12  .......... .......... .........X ---------- ---------"));
  const ToolRun refused = tool({"close", kRK420, "1!1,1!31"}, "", bench);
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("error -10013: Can not found physics location"));
}

TEST_F(ToolTest, BatchBuildsStateAcrossCommandsAndStopsAtTheFirstFailure) {
  const std::string r = kRK420 + " ";
  const ToolRun run = tool({"batch"}, "# one process, one chassis state\nopen " + r +
                                          "\nclose " + r + "1!1:3!3\nrelease " + r +
                                          "'2!2'\nswitch " + r + "--close 12!50 --open 1!1\n"
                                          "show " + r + "\nclear " + r + "\nclose " + r +
                                          "6!6 --show\nclose " + r + "1!99\nshow " + r + "\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("error -10008"));
  const auto cleared = run.out.find(kRK420 + ": every relay open\n");
  ASSERT_NE(cleared, std::string::npos) << run.out;
  EXPECT_EQ(closedInPicture(run.out.substr(0, cleared)), expand("1!2:1!3,2!1,2!3,3!1:3!3,12!50"));
  EXPECT_EQ(closedInPicture(run.out.substr(cleared)), expand("6!6")) << run.out;
}

TEST_F(ToolTest, InfoAndTextCommands) {
  // Settings only the RK421 carries: the others say why they are missing.
  EXPECT_THAT(tool({"info", kRK420}).out,
              HasSubstr("\n  baud rate       n/a (MCU Software Version is not Supported or "
                        "Hardware Does Not Support This Function)\n"));
  EXPECT_THAT(tool({"scpi", kRK420, "*IDN?", ":SYSTem:MODule?"}).out,
              MatchesRegex("QB ?,RK420 ?,.*\n041A\n"));
  const ToolRun console =
      tool({"scpi", kRK421}, "\n:SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?\nquit\n*IDN?\n");
  EXPECT_EQ(console.status, 0) << console.err;
  EXPECT_EQ(console.out, "GPIB Address:7\n");
}

}  // namespace
