// golden.hpp - what a test saw, rendered as text lines and compared exactly
// with a reviewed file under tests/data ('#' lines there are notes). A
// mismatch names the differing lines (the first 20) and leaves the whole
// rendering beside the test program as NAME.actual, for a diff.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace qbgolden {

inline void expectGolden(const std::string &name, const std::vector<std::string> &got) {
  std::ifstream in(QBVISA_TEST_DATA "/" + name);
  std::vector<std::pair<int, std::string>> want;  // line number in the file, text
  int number = 0;
  for (std::string line; std::getline(in, line);)
    if (++number, line.empty() || line[0] != '#') want.push_back({number, line});
  std::string report, all;
  int differ = 0;
  for (size_t i = 0; i < std::max(want.size(), got.size()); ++i) {
    const std::string w = i < want.size() ? want[i].second : "(end)", g = i < got.size() ? got[i] : "(end)";
    all += i < got.size() ? g + "\n" : "";
    if (w != g && ++differ <= 20)
      report += name + ":" + std::to_string(i < want.size() ? want[i].first : number + 1) + "\n-" + w + "\n+" + g + "\n";
  }
  if (differ != 0) std::ofstream(name + ".actual") << all;
  EXPECT_EQ(differ, 0) << report << "(all of it in " << name << ".actual)";
}

inline void expectGolden(const std::string &name, const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  expectGolden(name, lines);
}

// A reviewed table under tests/data rendered again: each row from its input
// (its first `inputs` tab-separated fields) and the whole compared, so a wrong
// field shows with its input.
template <typename Render>
inline void expectTable(const char *file, Render render, int inputs = 1) {
  std::ifstream in(std::string(QBVISA_TEST_DATA "/") + file);
  EXPECT_TRUE(in.good()) << file;
  std::string rendered;
  for (std::string row; std::getline(in, row);) {
    size_t end = row.find('\t');
    for (int n = 1; n < inputs && end != std::string::npos; ++n) end = row.find('\t', end + 1);
    if (!row.empty() && row[0] != '#') rendered += render(row.substr(0, end)) + "\n";
  }
  expectGolden(file, rendered);
}

}  // namespace qbgolden
