// The text-command console: lines go to the chassis through the library's
// SCPI query call and each reply is printed.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string>

#include <editline/readline.h>

#include <qbvisa.h>
#include <qbvisa_lowlevel.h>

#include "commands.hpp"

namespace qbtool {

namespace {

std::string trimmed(std::string text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

bool isQuit(const std::string &line) { return line == "quit" || line == "exit"; }

void query(uint32_t session, const std::string &line) {
  // The query fills at most 400 bytes and clears only the first few: a
  // zeroed, larger buffer always leaves the reply terminated.
  char reply[512] = {};
  QBVISA_SCPIQuery(session, line.c_str(), reply);
  std::string text(reply);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  std::cout << text << std::endl;
}

std::string historyFile() {
  const char *home = std::getenv("HOME");
  return home != nullptr && *home != '\0' ? std::string(home) + "/.qbvisa_history"
                                          : std::string();
}

void interactive(uint32_t session, const std::string &prompt) {
  const std::string history = historyFile();
  using_history();
  stifle_history(1000);
  if (!history.empty()) read_history(history.c_str());
  std::cout << "text commands to the chassis; quit or Ctrl-D ends\n";
  for (;;) {
    char *raw = readline(prompt.c_str());
    if (raw == nullptr) {
      std::cout << '\n';  // Ctrl-D leaves the cursor after the prompt
      break;
    }
    const std::string line = trimmed(raw);
    std::free(raw);
    if (line.empty()) continue;
    if (isQuit(line)) break;
    add_history(line.c_str());
    query(session, line);
  }
  if (!history.empty()) write_history(history.c_str());
}

}  // namespace

void scpi(Bench &bench, const std::string &resource,
          const std::vector<std::string> &lines) {
  const uint32_t session = bench.session(resource);
  if (!lines.empty()) {
    for (const auto &line : lines) query(session, line);
    return;
  }
  if (isatty(STDIN_FILENO) != 0) {
    const char *model = modelName(bench.record(resource).modelTypeCode);
    interactive(session, std::string(model != nullptr ? model : "QB") + "> ");
    return;
  }
  // Lines piped in: no prompt, no history, same end words.
  for (std::string raw; std::getline(std::cin, raw);) {
    const std::string line = trimmed(raw);
    if (line.empty()) continue;
    if (isQuit(line)) break;
    query(session, line);
  }
}

}  // namespace qbtool
