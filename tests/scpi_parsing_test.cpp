// Text-command parsing: which command id and argument a line yields, and
// crosspoint lists (points, subunit and error text for the telling inputs,
// and the bounds that keep hostile lists harmless).
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "golden.hpp"
#include "qbvisa_lowlevel.h"

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

using Points = std::vector<std::pair<int, int>>;

constexpr const char *kBadPoint = "Error: Invalid crosspoint format";

struct Parsed {
  int subunit;
  Points points;
  std::string message;
};

// A reviewed table under tests/data rendered again: comments stay, each row
// is rendered from its input (up to the first tab) and the whole compared, so
// a wrong field shows with its input.
template <typename Render>
void expectTable(const char *file, Render render) {
  std::ifstream in(std::string(QBVISA_TEST_DATA "/") + file);
  EXPECT_TRUE(in.good()) << file;
  std::string rendered;
  for (std::string row; std::getline(in, row);)
    rendered += (row.empty() || row[0] == '#' ? row : render(row.substr(0, row.find('\t')))) + "\n";
  qbgolden::expectGolden(file, rendered);
}

TEST(LineMatching, TableEntriesYieldTheirIdAndArgument) {
  expectTable("scpi_lines.tsv", [](const std::string &line) {
    char message[64] = "untouched";
    char argument[QBVISA_SCPI_ARGUMENT_SIZE];
    std::memset(argument, '#', sizeof argument);
    uint32_t id = 99;
    scpi_parser(0, line.c_str(), message, argument, &id);
    EXPECT_STREQ(message, id == 22 ? "Unknown Command" : "untouched") << line;
    return line + "\t" + std::to_string(id) + "\t" + (argument[0] == '#' ? "~" : argument);
  });
}

TEST(LineMatching, OverlongArgumentIsCutToTheBuffer) {
  const std::string list = "(@1(" + std::string(400, '1') + "))";
  char area[QBVISA_SCPI_ARGUMENT_SIZE + 16];
  std::memset(area, '#', sizeof area);
  uint32_t id = 0;
  scpi_parser(0, (":CLOS " + list).c_str(), nullptr, area, &id);
  EXPECT_EQ(id, 19u);
  EXPECT_EQ(std::string(area), list.substr(0, QBVISA_SCPI_ARGUMENT_SIZE - 1));
  EXPECT_EQ(area[QBVISA_SCPI_ARGUMENT_SIZE], '#');
}

Parsed parse(const std::string &text) {
  char message[256] = {};
  SCPIResult result = parseSCPICrossPoint(text.c_str(), message);
  Parsed parsed{result.subunit, {}, message};
  for (int i = 0; i < result.count; ++i)
    parsed.points.emplace_back(result.points[i].row, result.points[i].column);
  freeSCPIResult(&result);
  freeSCPIResult(&result);  // a second release is harmless
  EXPECT_TRUE(result.points == nullptr && result.count == 0);  // released and emptied
  freeSCPIResult(nullptr);
  return parsed;
}

TEST(ListParsing, YieldsPointsSubunitAndMessage) {
  expectTable("crosspoint_lists.tsv", [](const std::string &input) {
    const Parsed parsed = parse(input);
    std::string rendered = input + "\t" + std::to_string(parsed.subunit) + "\t";
    for (const auto &[r, c] : parsed.points)
      rendered += (&r == &parsed.points.front().first ? "" : " ") + std::to_string(r) + "!" + std::to_string(c);
    rendered += "\t";
    for (char ch : parsed.message) rendered += ch == '\n' ? std::string("\\n") : std::string(1, ch);
    return rendered;
  });
}

// One item on its own (0 and its points added, or -1 and nothing added), and
// whether parentheses balance, compared whole with tests/data/crosspoint_items.txt.
TEST(ListParsing, ItemsAndParentheses) {
  std::ostringstream out;
  for (const char *item : {"2!3", "2!3:1!2", "11", "a!1", "0!1", "1!1:2", "1!1:x!2", "1!1:0!1", "1!1:1000!1001"}) {
    SCPIResult result{};
    char message[256] = {};
    out << "item " << item << ": " << parseCrosspoints(&result, item, message);
    out << " count " << result.count << '\n';
    freeSCPIResult(&result);
  }
  out << "item without a result: " << parseCrosspoints(nullptr, "1!1", nullptr) << '\n';
  for (const char *text : {"(@1(1!1))", "", (const char *)nullptr, "(()", ")(", "())("})
    out << "balanced " << (text ? text : "null") << ": " << areParenthesesBalanced(text) << '\n';
  qbgolden::expectGolden("crosspoint_items.txt", out.str());
}

TEST(ListParsing, BoundsOfTheSliceAndOfTheRectangle) {
  std::string items;
  for (int i = 0; i < 100; ++i) items += "1!1,";
  // 255 characters survive: 63 items with their commas and a last "1!1".
  EXPECT_EQ(parse("(@1(" + items + "1!1))").points.size(), 64u);

  const Parsed full = parse("(@1(1000!1000:1!1))");
  ASSERT_EQ(full.points.size(), 1000000u);
  EXPECT_EQ(full.points[1000], std::make_pair(2, 1));
  EXPECT_EQ(full.points.back(), std::make_pair(1000, 1000));
  EXPECT_EQ(full.message, "");
  const Parsed over = parse("(@1(1!1:1000!1000,7!7))");
  EXPECT_EQ(over.points.size(), 1000000u);
  EXPECT_EQ(over.message, kBadPoint);
}

// An address-space limit cannot coexist with the sanitizer's shadow memory.
#if !defined(UNDER_ADDRESS_SANITIZER)
// Runs in a child process: parses a large rectangle under an address-space
// limit that leaves room for a few small blocks only.
[[noreturn]] void parseUnderMemoryLimit() {
  long pages = 0;
  if (FILE *statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld", &pages) != 1) pages = 0;
    std::fclose(statm);
  }
  const rlim_t size = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (2u << 20);
  const rlimit limit{size, size};
  setrlimit(RLIMIT_AS, &limit);
  char message[64] = {};
  SCPIResult result{};
  const bool first = parseCrosspoints(&result, "1!1", message) == 0;
  const bool refused = parseCrosspoints(&result, "1!1:999!1000", message) == -1;
  const bool kept = first && refused && result.count == 1 && result.points[0].row == 1;
  freeSCPIResult(&result);
  std::_Exit(kept && !std::strcmp(message, "Error: Not enough memory for crosspoints") ? 0 : 1);
}

TEST(ListParsing, ExhaustedMemoryIsReportedNotFatal) {
  EXPECT_EXIT(parseUnderMemoryLimit(), ::testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
