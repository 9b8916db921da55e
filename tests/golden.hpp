// golden.hpp - a rendered transcript compared whole with a reviewed file under
// tests/data. On a difference the first differing line is named and the whole
// rendering goes to NAME.actual beside the test program, for a diff.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace qbgolden {

inline void expectGolden(const std::string &name, const std::string &actual) {
  std::ifstream file(QBVISA_TEST_DATA "/" + name);
  const std::string reviewed{std::istreambuf_iterator<char>(file), {}};
  if (actual == reviewed) return;
  std::ofstream(name + ".actual") << actual;
  std::istringstream a(actual), r(reviewed);
  std::string gotLine, reviewedLine;
  for (int n = 1;; ++n) {
    const bool got = bool(std::getline(a, gotLine)), had = bool(std::getline(r, reviewedLine));
    if (got && had && gotLine == reviewedLine) continue;
    ADD_FAILURE() << name << " line " << n << "\n  got:      " << (got ? gotLine : "(end)")
                  << "\n  reviewed: " << (had ? reviewedLine : "(end)");
    return;
  }
}

}  // namespace qbgolden
