// The built qbvisa tool on the simulated bench, run as an engineer would:
// everything it prints against tests/data/tool_transcript.txt, so a picture
// with one crosspoint in the wrong place shows.
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

#include "golden.hpp"

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path &file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Runs the tool built beside the tests (<build>/tools/qbvisa) in `scratch`
// with `input` on standard input, on the built-in bench or on the one
// `benchJson` describes; its exit status, standard output, standard error.
// Arguments and paths here hold no single quote.
std::vector<std::string> tool(const fs::path &scratch, const std::vector<std::string> &args,
                              const std::string &input, const std::string &benchJson) {
  const auto quoted = [](const std::string &word) { return "'" + word + "'"; };
  std::ofstream(scratch / "in") << input;
  std::ofstream(scratch / "bench.json") << benchJson;
  std::string command = "env -u QBSIM_BENCH -u COLUMNS ";
  if (!benchJson.empty()) command += "QBSIM_BENCH=" + quoted(scratch / "bench.json") + " ";
  command += quoted(fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools/qbvisa");
  for (const auto &arg : args) command += " " + quoted(arg);
  command += " <" + quoted(scratch / "in") + " >" + quoted(scratch / "out");
  const int raw = std::system((command + " 2>" + quoted(scratch / "err")).c_str());
  return {std::to_string(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1), slurp(scratch / "out"), slurp(scratch / "err")};
}

// Sub-matrices 1, 3 and 5 fitted: the matrix's sub-matrices 1..3 are served
// by boards 0, 2 and 4, sub-matrices 4 and 5 are missing.
const std::string kPartlyFitted = R"({"version": 1, "resources": [{"name": "GPIB0::5::INSTR",
    "kind": "chassis", "chassis": {"model": "RK420", "presenceMask": 21}}]})";

// Each "$ qbvisa 'ARG'..." line of the transcript is run, with the "< " lines
// below it as standard input; "(usage)" keeps only the exit status of a wrong
// usage. "## " lines say why a case is there.
TEST(ToolTest, OutputMatchesTheReviewedTranscript) {
  char pattern[] = "/tmp/qbvisa_tool_test.XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  std::ifstream in(QBVISA_TEST_DATA "/tool_transcript.txt");
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::ostringstream transcript;
  for (size_t n = 0; n < lines.size();) {
    const std::string call = lines[n++];
    if (call.rfind("#", 0) == 0) continue;  // a note
    transcript << call << "\n";
    if (call.rfind("$ qbvisa", 0) != 0) continue;
    std::vector<std::string> args;
    for (size_t a = call.find('\''), b; a < call.find("  ("); a = call.find('\'', b + 1))
      args.push_back(call.substr(a + 1, (b = call.find('\'', a + 1)) - a - 1));
    std::string input;
    for (; n < lines.size() && lines[n].rfind("< ", 0) == 0; ++n) {
      transcript << lines[n] << "\n";
      input += lines[n].substr(2) + "\n";
    }
    while (n < lines.size() && lines[n].rfind("$ qbvisa", 0) != 0 && lines[n].rfind("## ", 0) != 0) ++n;
    const bool partly = call.find("(partly fitted bench)") != std::string::npos;
    const auto done = tool(pattern, args, input, partly ? kPartlyFitted : "");
    transcript << "exit " << done[0] << "\n";
    if (call.find("(usage)") != std::string::npos) continue;
    transcript << done[1];
    std::istringstream err(done[2]);
    for (std::string line; std::getline(err, line);) transcript << "! " << line << "\n";
  }
  fs::remove_all(pattern);
  qbgolden::expectGolden("tool_transcript.txt", transcript.str());
}

}  // namespace
