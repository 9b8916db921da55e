// golden_lines.hpp - what a test saw, rendered as text lines and compared
// exactly with a reviewed file under tests/data ('#' lines there are notes).
// A mismatch names each differing line of the file (the first 20), and the
// whole rendering is left in the test's temporary directory as FILE.got.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

inline void ExpectGoldenLines(const std::string &file, const std::vector<std::string> &got) {
  std::ifstream in(QBVISA_TEST_DATA "/" + file);
  std::vector<std::pair<int, std::string>> want;  // line number in the file, text
  int number = 0;
  for (std::string line; std::getline(in, line);)
    if (++number, !line.empty() && line[0] != '#') want.push_back({number, line});
  std::string report, all;
  int differ = 0;
  for (size_t i = 0; i < std::max(want.size(), got.size()); ++i) {
    const std::string w = i < want.size() ? want[i].second : "(end)", g = i < got.size() ? got[i] : "(end)";
    all += i < got.size() ? g + "\n" : "";
    if (w != g && ++differ <= 20)
      report += file + ":" + std::to_string(i < want.size() ? want[i].first : number + 1) + "\n-" + w + "\n+" + g + "\n";
  }
  if (differ != 0) std::ofstream(::testing::TempDir() + file + ".got") << all;
  EXPECT_EQ(differ, 0) << report << "(all of it in " << ::testing::TempDir() << file << ".got)";
}
