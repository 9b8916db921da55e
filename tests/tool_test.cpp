// Runs the built qbvisa tool against the default simulated bench and reads
// its output as an engineer would: the scan table, the error lines, the
// matrix picture.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

const std::string kRK420 = "GPIB0::5::INSTR";
const std::string kRK421 = "USB0::0x1A2B::0x0421::RK421001::INSTR";
const std::string kRK422 = "TCPIP0::192.168.1.22::inst0::INSTR";
const std::string kRK423 = "ASRL1::INSTR";
const std::string kForeign = "GPIB0::9::INSTR";

struct ToolRun {
  int status;
  std::string out;
  std::string err;
};

// The tool is built beside the tests: <build>/tools/qbvisa.
fs::path toolPath() {
  if (const char *named = std::getenv("QBVISA_TOOL")) return named;
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" /
         "qbvisa";
}

std::string quoted(const std::string &word) {
  std::string text = "'";
  for (char c : word) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return text + "'";
}

std::string slurp(const fs::path &file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class ToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char pattern[] = "/tmp/qbvisa_tool_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    scratch_ = pattern;
  }
  static void TearDownTestSuite() { fs::remove_all(scratch_); }

  void SetUp() override {
    ASSERT_TRUE(fs::exists(toolPath())) << "build the qbvisa tool first: " << toolPath();
  }

  // Runs the tool with `input` on standard input, on the built-in bench or on
  // the bench described by `benchJson`.
  static ToolRun tool(const std::vector<std::string> &args, const std::string &input = "",
                      const std::string &benchJson = "") {
    std::ofstream(scratch_ / "in") << input;
    std::string command = "env -u QBSIM_BENCH ";
    if (!benchJson.empty()) {
      std::ofstream(scratch_ / "bench.json") << benchJson;
      command += "QBSIM_BENCH=" + quoted(scratch_ / "bench.json") + " ";
    }
    command += quoted(toolPath());
    for (const auto &arg : args) command += " " + quoted(arg);
    command += " <" + quoted(scratch_ / "in") + " >" + quoted(scratch_ / "out") + " 2>" +
               quoted(scratch_ / "err");
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(scratch_ / "out"),
            slurp(scratch_ / "err")};
  }

  static ToolRun batch(const std::string &lines) { return tool({"batch"}, lines); }

  static inline fs::path scratch_;
};

using Points = std::set<std::pair<int, int>>;

// Reads the crosspoints marked 'X' in the picture: the row number starts its
// line, the column number stands vertically in the digit lines above it.
Points closedInPicture(const std::string &picture) {
  static const std::regex rowLine(R"(^ *(\d+)  [.X\- ]+$)");
  static const std::regex digitLine(R"(^[\d ]*\d[\d ]*$)");
  Points closed;
  std::vector<std::string> header;
  bool afterRows = false;
  std::istringstream lines(picture);
  for (std::string line; std::getline(lines, line);) {
    std::smatch match;
    if (std::regex_match(line, match, rowLine)) {
      afterRows = true;
      for (size_t i = match.length(1) + match.position(1); i < line.size(); ++i) {
        if (line[i] != 'X') continue;
        std::string digits;
        for (const auto &above : header)
          if (i < above.size() && above[i] != ' ') digits += above[i];
        closed.insert({std::stoi(match[1]), digits.empty() ? -1 : std::stoi(digits)});
      }
    } else if (std::regex_match(line, digitLine)) {
      if (afterRows) header.clear();
      afterRows = false;
      header.push_back(line);
    } else {
      header.clear();
      afterRows = false;
    }
  }
  return closed;
}

Points rectangle(int row1, int column1, int row2, int column2) {
  Points points;
  for (int r = row1; r <= row2; ++r)
    for (int c = column1; c <= column2; ++c) points.insert({r, c});
  return points;
}

Points joined(std::initializer_list<Points> parts) {
  Points all;
  for (const auto &part : parts) all.insert(part.begin(), part.end());
  return all;
}

TEST_F(ToolTest, ScanListsTheFourChassisAndNotTheForeignInstrument) {
  const ToolRun run = tool({"scan"});
  ASSERT_EQ(run.status, 0) << run.err;
  for (const auto &[resource, model, type] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {kRK420, "RK420", "1050"},
           {kRK421, "RK421", "1066"},
           {kRK422, "RK422", "1082"},
           {kRK423, "RK423", "1098"}}) {
    const std::regex row("(^|\n)" + std::regex_replace(resource, std::regex(R"([.])"), R"(\.)") +
                         " +" + model + " +" + type + "\n");
    EXPECT_TRUE(std::regex_search(run.out, row)) << resource << " missing in:\n" << run.out;
  }
  EXPECT_EQ(run.out.find(kForeign), std::string::npos) << run.out;
}

TEST_F(ToolTest, FailuresPrintTheLibraryMessageWithItsCodeAndExitNonZero) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{"info", kForeign}, "error -10048: Resource is not present in the system"},
      {{"set", kRK421, "gpib", "31"},
       "error -10050: Invalid GPIB Address, Please check the GPIB address between 1~30"},
      {{"set", kRK420, "control-mode", "remote"},
       "error -10020: MCU Software Version is not Supported or Hardware Does Not "
       "Support This Function"},
      {{"set", kRK421, "sn", "1234567", "1"}, "error -10028: Input SN_Num Error"},
      {{"update", kRK421, "/nonexistent/image.bin"},
       "error -10015: Online Update file open fail"},
      {{"close", kRK420, "13!1"}, "error -10007: Matrix row value out of range"},
      {{"close", kRK421, "1!49"}, "error -10008: Matrix column value out of range"},
      {{"switch", kRK423, "--close", "1!1:2!2", "--open", "2!2"},
       "error -10021: Point Definition Error"},
      {{"close", kRK420, "1!1:12!50"}, "error -10030: Relay Closure Limit Exceeded"},
      {{"close", kRK421, "1!1:10!48"}, "error -10030: Relay Closure Limit Exceeded"},
  };
  for (const auto &c : cases) {
    const ToolRun run = tool(c.args);
    EXPECT_EQ(run.status, 1) << c.args[0] << " " << c.args.back();
    EXPECT_NE(run.err.find(c.message), std::string::npos)
        << "expected \"" << c.message << "\" in: " << run.err;
  }
}

TEST_F(ToolTest, WrongUsageExitsWithTwo) {
  for (const auto &args : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"set", kRK421, "volume", "3"}, {"set", kRK421, "gpib", "x"},
           {"switch", kRK420}}) {
    EXPECT_EQ(tool(args).status, 2) << (args.empty() ? "(nothing)" : args[0]);
  }
}

TEST_F(ToolTest, PointListsSelectExactlyTheirCrosspoints) {
  struct Case {
    std::vector<std::string> words;
    Points expected;
  };
  const std::vector<Case> cases = {
      {{"1!1"}, {{1, 1}}},
      {{"3!4:1!2"}, rectangle(1, 2, 3, 4)},  // corners in any order
      {{"1!1,2!2", "12!50"}, {{1, 1}, {2, 2}, {12, 50}}},
      {{" 4!5 , 6!7,"}, {{4, 5}, {6, 7}}},
      {{"1!1:1!1", "1!1"}, {{1, 1}}},
      {{"2!9:3!12"}, rectangle(2, 9, 3, 12)},  // across two sub-matrices
  };
  for (const auto &c : cases) {
    std::string line = "close " + kRK420;
    for (const auto &word : c.words) line += " " + quoted(word);
    const ToolRun run = batch(line + "\nshow " + kRK420 + "\n");
    ASSERT_EQ(run.status, 0) << line << "\n" << run.err;
    EXPECT_EQ(closedInPicture(run.out), c.expected) << line << "\n" << run.out;
  }
}

TEST_F(ToolTest, BadPointItemsAreRefusedWithTheReason) {
  struct Case {
    std::vector<std::string> words;
    std::string reason;
  };
  // A bad item anywhere refuses the whole list.
  const std::vector<Case> cases = {
      {{"1!1", "0!1"}, "rows and columns count from 1"},
      {{"1!0,1!1"}, "rows and columns count from 1"},
      {{"1!"}, "column is missing"},
      {{"!1"}, "row is missing"},
      {{"1-1"}, "expected ROW!COLUMN"},
      {{"a!1"}, "row 'a' is not a number"},
      {{"-1!1"}, "row '-1' is not a number"},
      {{"1!1:2"}, "expected ROW!COLUMN"},
      {{"1!1:2!2:3!3"}, "a rectangle has two corners"},
      {{"123456!1"}, "row 123456 is too large"},
      {{",", " "}, "no crosspoint given"},
  };
  for (const auto &c : cases) {
    std::vector<std::string> args = {"close", kRK420};
    args.insert(args.end(), c.words.begin(), c.words.end());
    const ToolRun run = tool(args);
    EXPECT_EQ(run.status, 1) << c.words[0];
    EXPECT_NE(run.err.find("error -10021: Point Definition Error"), std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find(c.reason), std::string::npos) << c.words[0] << ": " << run.err;
    EXPECT_EQ(run.out, "") << c.words[0];  // nothing switched
  }
}

TEST_F(ToolTest, ShowMarksExactlyTheClosedCrosspointsOnEveryModel) {
  struct Case {
    std::string resource;
    std::string points;
    Points expected;
    std::string relayLine;
  };
  const std::vector<Case> cases = {
      {kRK420, "1!1,2!2,3!3,12!50,5!8:7!13",
       joined({{{1, 1}, {2, 2}, {3, 3}, {12, 50}}, rectangle(5, 8, 7, 13)}),
       " of at most 400"},
      // The first six columns of an RK421 sub-matrix are wired in reverse.
      {kRK421, "1!1:1!6,2!6,3!7,4!12:5!13,10!48",
       joined({rectangle(1, 1, 1, 6), {{2, 6}, {3, 7}, {10, 48}}, rectangle(4, 12, 5, 13)}),
       " of at most 270"},
      // Wider than a line: only sub-matrices 1 and 21 are drawn.
      {kRK422, "1!1,4!96,2!2015:3!2016",
       joined({{{1, 1}, {4, 96}}, rectangle(2, 2015, 3, 2016)}),
       " (no closure limit on this model)"},
      {kRK423, "1!1,8!12,3!4:4!6", joined({{{1, 1}, {8, 12}}, rectangle(3, 4, 4, 6)}),
       " (no closure limit on this model)"},
  };
  for (const auto &c : cases) {
    const ToolRun run = tool({"close", c.resource, c.points, "--show"});
    ASSERT_EQ(run.status, 0) << c.resource << "\n" << run.err;
    EXPECT_EQ(run.err, "") << c.resource;  // the chassis holds what was asked
    EXPECT_EQ(closedInPicture(run.out), c.expected) << c.resource << "\n" << run.out;
    EXPECT_NE(run.out.find("closed crosspoints: " + std::to_string(c.expected.size()) + "\n"),
              std::string::npos)
        << run.out;
    EXPECT_TRUE(std::regex_search(run.out, std::regex("closed relays: [1-9][0-9]*" +
                                                      std::regex_replace(c.relayLine, std::regex(R"([()])"), R"(\$&)"))))
        << run.out;
  }
}

TEST_F(ToolTest, SubMatricesThatAreNotFittedAreDrawnEmptyAndRefused) {
  // Sub-matrices 1, 3 and 5 fitted: the matrix's sub-matrices 1..3 are
  // served by boards 0, 2 and 4, sub-matrices 4 and 5 are missing.
  const std::string bench = R"({"version": 1, "resources": [{"name": "GPIB0::5::INSTR",
      "kind": "chassis", "chassis": {"model": "RK420", "presenceMask": 21}}]})";
  const ToolRun open = tool({"open", kRK420}, "", bench);
  EXPECT_NE(open.out.find("3 fitted, on boards 0 2 4"), std::string::npos) << open.out;

  const ToolRun run = tool({"close", kRK420, "1!1,2!12,12!30,3!21:4!22", "--show"}, "", bench);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(closedInPicture(run.out),
            joined({{{1, 1}, {2, 12}, {12, 30}}, rectangle(3, 21, 4, 22)}))
      << run.out;
  EXPECT_NE(run.out.find("\n12  .......... .......... .........X ---------- ----------\n"),
            std::string::npos)
      << run.out;

  const ToolRun refused = tool({"close", kRK420, "1!1,1!31"}, "", bench);
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("error -10013: Can not found physics location"),
            std::string::npos)
      << refused.err;
}

TEST_F(ToolTest, StateBuildsUpAcrossCommandsOfOneBatch) {
  const ToolRun run = batch("# one process, one chassis state\n"
                        "open " + kRK420 + "\n"
                        "close " + kRK420 + " 1!1:3!3\n"
                        "release " + kRK420 + " '2!2'\n"
                        "switch " + kRK420 + " --close 12!50 --open 1!1\n"
                        "show " + kRK420 + "\n"
                        "clear " + kRK420 + "\n"
                        "close " + kRK420 + " 6!6 --show\n");
  ASSERT_EQ(run.status, 0) << run.err;
  const auto second = run.out.find(kRK420 + ": every relay open\n");
  ASSERT_NE(second, std::string::npos) << run.out;
  EXPECT_EQ(closedInPicture(run.out.substr(0, second)),
            (Points{{1, 2}, {1, 3}, {2, 1}, {2, 3}, {3, 1}, {3, 2}, {3, 3}, {12, 50}}))
      << run.out;
  EXPECT_EQ(closedInPicture(run.out.substr(second)), (Points{{6, 6}})) << run.out;
}

TEST_F(ToolTest, BatchStopsAtTheFirstFailure) {
  const ToolRun run = batch("close " + kRK420 + " 1!1\nclose " + kRK420 + " 1!99\nshow " +
                        kRK420 + "\n");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("error -10008"), std::string::npos) << run.err;
  EXPECT_EQ(run.out.find("X = closed"), std::string::npos) << run.out;
}

TEST_F(ToolTest, OpenReportsTheGeometryOfEachModel) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {kRK420, "12 rows x 50 columns, 600 crosspoints"},
      {kRK421, "10 rows x 48 columns, 480 crosspoints"},
      {kRK422, "16 rows x 2016 columns, 32256 crosspoints"},
      {kRK423, "8 rows x 12 columns, 96 crosspoints"},
  };
  for (const auto &[resource, geometry] : cases) {
    const ToolRun run = tool({"open", resource});
    EXPECT_EQ(run.status, 0) << resource << ": " << run.err;
    EXPECT_NE(run.out.find(geometry), std::string::npos) << run.out;
  }
  // A card slot of the RK420 shows the card, whether or not it initialises.
  const ToolRun card = tool({"open", kRK420, "--slot", "1"});
  EXPECT_TRUE(std::regex_search(card.out, std::regex("\n  card +N7361-HH, 16\\*50\n")))
      << card.out;
}

TEST_F(ToolTest, InfoPrintsACompleteBlockForEveryChassis) {
  const std::vector<std::string> labels = {
      "model",       "identity",     "serial numbers", "firmware", "hardware",
      "slot 0 card", "control mode", "IP address",     "LAN mode", "GPIB address",
      "baud rate"};
  for (const auto &resource : {kRK420, kRK421, kRK422, kRK423}) {
    const ToolRun run = tool({"info", resource});
    ASSERT_EQ(run.status, 0) << resource << ": " << run.err;
    for (const auto &label : labels)
      EXPECT_TRUE(std::regex_search(run.out, std::regex("\n  " + label + " +\\S")))
          << resource << " lacks " << label << ":\n" << run.out;
    // Only the RK421 carries communication settings; the others refuse them
    // and the block says why.
    const bool refused =
        run.out.find("GPIB address    n/a (MCU Software Version is not Supported") !=
        std::string::npos;
    EXPECT_EQ(refused, resource != kRK421) << run.out;
  }
}

TEST_F(ToolTest, ScpiPrintsEachReplyAndTheConsoleEndsAtQuit) {
  const ToolRun lines = tool({"scpi", kRK420, "*IDN?", ":SYSTem:MODule?"});
  ASSERT_EQ(lines.status, 0) << lines.err;
  EXPECT_TRUE(std::regex_search(lines.out, std::regex("^QB ?,RK420 ?,.*\n041A\n$")))
      << lines.out;

  const ToolRun console = tool({"scpi", kRK421}, "\n:SYSTem:COMMunicate:GPIB:RDEVice:ADDRess?\n"
                                             "quit\n*IDN?\n");
  ASSERT_EQ(console.status, 0) << console.err;
  EXPECT_EQ(console.out, "GPIB Address:7\n");
}

}  // namespace
