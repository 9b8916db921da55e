// qbvisa - command-line tool for test engineers: finds the QB switch-matrix
// chassis, switches crosspoints, draws the matrix, shows and changes the
// chassis settings and talks to it in text commands.
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <qbvisa.h>

#include "commands.hpp"
#include "point_list.hpp"
#include "tool_error.hpp"

namespace {

using namespace qbtool;

constexpr int kFailed = 1;     // the library or the chassis refused
constexpr int kWrongUsage = 2;

const char *const kFooter = R"(
Points
  ROW!COLUMN is one crosspoint; ROW1!COL1:ROW2!COL2 is every crosspoint of that
  rectangle. Rows and columns count from 1. Give several items as separate
  words or separated by commas, and quote them in an interactive shell
  ('1!1,2!2:4!6'), where '!' is special. COLUMN runs along the whole row of the
  chassis's own matrix (slot 0, the one that switches): with 10 columns per
  sub-matrix, columns 1-10 are sub-matrix 1, 11-20 sub-matrix 2 and so on;
  `show` numbers them.
  Crosspoint (ROW, COLUMN) is bit p = (ROW-1)*C + (COLUMN-1) of the switching
  array, C being the columns of a row, i.e. bit p%32 of word p/32.

Switching state
  A switch sets every crosspoint of the matrix at once, so close, release and
  switch start from the crosspoints closed now and change only those given.
  On the simulated bench the tool reads the closed relays back from the
  chassis. A chassis behind a vendor's VISA cannot report its relays: the tool
  then starts from what it switched in this process, and crosspoints it did
  not switch are opened. On its own the simulated bench lives inside the
  process, so its chassis start with every relay open in each call: either
  run the steps in one process with `batch`, or start a shared rack
  (`qbvisa-sim serve --background --socket PATH`, then QBSIM_SERVER=PATH in
  the environment), which keeps its state across calls and processes
  until `qbvisa-sim stop`. close, release, switch,
  clear and show do not initialise the chassis; `open` does, and that opens
  every relay of the slot.

Example: build a state step by step and look at it
  qbvisa batch <<'EOF'
  open GPIB0::5::INSTR
  close GPIB0::5::INSTR 1!1:4!4
  release GPIB0::5::INSTR 2!2
  show GPIB0::5::INSTR
  EOF

Exit status
  0 done; 1 the library or the chassis refused, with "error CODE: TEXT" on
  standard error (TEXT is the library's message for CODE); 2 wrong usage.
)";

int terminalWidth() {
  winsize size{};
  if (isatty(STDOUT_FILENO) != 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 &&
      size.ws_col > 0)
    return size.ws_col;
  if (const char *columns = std::getenv("COLUMNS"); columns != nullptr && std::atoi(columns) > 0)
    return std::atoi(columns);
  return 132;
}

// Splits a batch line into words: blanks separate, quotes group.
std::vector<std::string> splitWords(const std::string &line) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  char quote = 0;
  for (char c : line) {
    if (quote != 0) {
      if (c == quote)
        quote = 0;
      else
        word += c;
    } else if (c == '\'' || c == '"') {
      quote = c;
      inWord = true;
    } else if (c == ' ' || c == '\t') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (quote != 0) throw UsageError("unbalanced quote in: " + line);
  if (inWord) words.push_back(word);
  return words;
}

class Tool {
 public:
  // Runs one command line (words without the program name).
  int run(std::vector<std::string> words, bool inBatch);

 private:
  int runBatch(const std::string &file);
  Bench bench_;
};

int Tool::run(std::vector<std::string> words, bool inBatch) {
  CLI::App app{"Drives QB relay switch-matrix chassis (" + modelList() +
                   ") through VISA.",
               "qbvisa"};
  app.require_subcommand(1);
  app.footer(kFooter);
  app.set_version_flag("--version", [] {
    char version[8] = {};
    QBVISA_GetLibVersion(version);
    return std::string("qbvisa with libQBVISA ") + version;
  });

  std::string resource, setting, file;
  uint64_t slot = 0;
  std::vector<std::string> points, closePoints, openPoints, values, lines;
  bool showAfter = false;
  PictureOptions picture;
  picture.width = terminalWidth();

  auto *scanCmd = app.add_subcommand("scan", "List every chassis that discovery finds.");

  auto *openCmd = app.add_subcommand(
      "open", "Open a slot and initialise it (every relay of the slot opens); print "
              "what the slot holds.");
  openCmd->add_option("resource", resource, "VISA resource name")->required();
  openCmd->add_option("--slot", slot, "0 the chassis's own matrix, 1 and 2 the "
                                      "card slots of an " + cardModelList())
      ->check(CLI::Range(0, 2));

  auto addResource = [&](CLI::App *cmd) {
    cmd->add_option("resource", resource, "VISA resource name")->required();
  };
  auto addShow = [&](CLI::App *cmd) {
    cmd->add_flag("--show", showAfter, "draw the matrix afterwards");
  };
  auto *closeCmd = app.add_subcommand(
      "close", "Close crosspoints; the others keep their state (see Switching state).");
  addResource(closeCmd);
  closeCmd->add_option("points", points, "crosspoints to close")->required();
  addShow(closeCmd);
  auto *releaseCmd = app.add_subcommand(
      "release", "Open crosspoints; the others keep their state (see Switching state).");
  addResource(releaseCmd);
  releaseCmd->add_option("points", points, "crosspoints to open")->required();
  addShow(releaseCmd);
  auto *switchCmd = app.add_subcommand(
      "switch", "Open some crosspoints and close others in one switching step; the "
                "rest keep their state. A point may not be in both lists.");
  addResource(switchCmd);
  switchCmd->add_option("--close", closePoints, "crosspoints to close");
  switchCmd->add_option("--open", openPoints, "crosspoints to open");
  addShow(switchCmd);

  auto *clearCmd = app.add_subcommand("clear", "Open every relay of the chassis's own matrix.");
  addResource(clearCmd);

  auto *showCmd = app.add_subcommand(
      "show", "Draw the matrix: X closed, . open, - sub-matrix not fitted; count the "
              "closed relays against the model's closure limit (" +
                  closureLimitList() +
                  "). Read back from the chassis on the simulated bench; "
                  "elsewhere what this process switched.");
  addResource(showCmd);
  auto addPictureOptions = [&](CLI::App *cmd) {
    cmd->add_option("--width", picture.width, "line width (default: the terminal's)")
        ->check(CLI::PositiveNumber);
    cmd->add_flag("--all", picture.allSubMatrices,
                  "draw sub-matrices without a closed crosspoint when the matrix is "
                  "wider than a line");
  };
  addPictureOptions(showCmd);
  for (auto *cmd : {closeCmd, releaseCmd, switchCmd}) addPictureOptions(cmd);

  auto *infoCmd = app.add_subcommand(
      "info", "Model, serial numbers, firmware and hardware versions, cards, control "
              "mode and communication settings; n/a (reason) where the model has none.");
  addResource(infoCmd);

  auto *setCmd = app.add_subcommand(
      "set", "Change a setting: ip ADDRESS | lan-mode manual|auto | gpib 1..30 | "
             "baud RATE | control-mode local|remote | sn SERIAL HW | "
             "card-sn SLOT SERIAL HW.");
  addResource(setCmd);
  setCmd->add_option("setting", setting, "what to change")
      ->required()
      ->check(CLI::IsMember(settingNames()));
  setCmd->add_option("values", values, "the new value(s)")->required();

  auto *updateCmd = app.add_subcommand("update", "Send a firmware image to the chassis.");
  addResource(updateCmd);
  updateCmd->add_option("file", file, "firmware image")->required();

  auto *scpiCmd = app.add_subcommand(
      "scpi", "Send text commands (e.g. '*IDN?', ':CLOSe (@1(1!1))') and print each "
              "reply; without LINE an interactive console (quit or Ctrl-D ends).");
  addResource(scpiCmd);
  scpiCmd->add_option("line", lines, "command lines");

  CLI::App *batchCmd = nullptr;
  if (!inBatch) {
    batchCmd = app.add_subcommand(
        "batch", "Run qbvisa commands, one per line, from FILE or standard input, in "
                 "one process; stops at the first failure. Lines starting with '#' "
                 "are comments.");
    batchCmd->add_option("file", file, "command file; - or none: standard input");
  }

  try {
    std::reverse(words.begin(), words.end());  // CLI11 takes them last first
    app.parse(words);
  } catch (const CLI::ParseError &e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : kWrongUsage;
  }

  try {
    if (scanCmd->parsed()) scan(bench_);
    else if (openCmd->parsed()) qbtool::open(bench_, resource, slot);
    else if (closeCmd->parsed()) change(bench_, resource, points, {});
    else if (releaseCmd->parsed()) change(bench_, resource, {}, points);
    else if (switchCmd->parsed()) {
      if (closePoints.empty() && openPoints.empty())
        throw UsageError("switch needs --close or --open");
      change(bench_, resource, closePoints, openPoints);
    } else if (clearCmd->parsed()) qbtool::clear(bench_, resource);
    else if (showCmd->parsed()) show(bench_, resource, picture);
    else if (infoCmd->parsed()) info(bench_, resource);
    else if (setCmd->parsed()) set(bench_, resource, setting, values);
    else if (updateCmd->parsed()) update(bench_, resource, file);
    else if (scpiCmd->parsed()) scpi(bench_, resource, lines);
    else if (batchCmd != nullptr && batchCmd->parsed()) return runBatch(file);
    if (showAfter) show(bench_, resource, picture);
  } catch (const ToolError &e) {
    std::cout.flush();
    std::cerr << e.what() << std::endl;
    return kFailed;
  } catch (const PointListError &e) {
    std::cout.flush();
    std::cerr << ToolError(QBVISA_ERR_POINT_DEFINITION, e.what()).what() << std::endl;
    return kFailed;
  } catch (const UsageError &e) {
    std::cout.flush();
    std::cerr << "qbvisa: " << e.what() << std::endl;
    return kWrongUsage;
  }
  return 0;
}

int Tool::runBatch(const std::string &file) {
  std::ifstream named;
  if (!file.empty() && file != "-") {
    named.open(file);
    if (!named) {
      std::cerr << "qbvisa: cannot read " << file << std::endl;
      return kWrongUsage;
    }
  }
  std::istream &in = named.is_open() ? named : std::cin;
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> words;
    try {
      const auto first = line.find_first_not_of(" \t");
      if (first == std::string::npos || line[first] == '#') continue;
      words = splitWords(line);
    } catch (const UsageError &e) {
      std::cerr << "qbvisa: " << e.what() << std::endl;
      return kWrongUsage;
    }
    if (const int status = run(words, true); status != 0) return status;
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  Tool tool;
  return tool.run(words, false);
}
