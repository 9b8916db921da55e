#include "point_list.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

namespace qbtool {

namespace {

// No chassis has a row or column number of six digits; the bound also keeps
// rectangle sizes far from integer overflow.
constexpr int kLargestNumber = 99999;

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

int parseNumber(std::string_view text, std::string_view item,
                const char *what) {
  text = trim(text);
  if (text.empty())
    throw PointListError(std::string(item), std::string(what) + " is missing");
  if (!std::all_of(text.begin(), text.end(),
                   [](char c) { return c >= '0' && c <= '9'; }))
    throw PointListError(std::string(item),
                         std::string(what) + " '" + std::string(text) +
                             "' is not a number");
  long long value = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), value).ec !=
      std::errc())
    value = kLargestNumber + 1LL;  // more digits than a long long holds
  if (value < 1)
    throw PointListError(std::string(item), "rows and columns count from 1");
  if (value > kLargestNumber)
    throw PointListError(std::string(item),
                         std::string(what) + " " + std::string(text) + " is too large");
  return static_cast<int>(value);
}

std::pair<int, int> parseCorner(std::string_view corner, std::string_view item) {
  const auto bang = corner.find('!');
  if (bang == std::string_view::npos)
    throw PointListError(std::string(item),
                         "expected ROW!COLUMN or ROW!COLUMN:ROW!COLUMN");
  return {parseNumber(corner.substr(0, bang), item, "row"),
          parseNumber(corner.substr(bang + 1), item, "column")};
}

PointRange parseItem(std::string_view item) {
  const auto colon = item.find(':');
  const auto first = parseCorner(item.substr(0, colon), item);
  auto last = first;
  if (colon != std::string_view::npos) {
    const auto second = item.substr(colon + 1);
    if (second.find(':') != std::string_view::npos)
      throw PointListError(std::string(item), "a rectangle has two corners");
    last = parseCorner(second, item);
  }
  return PointRange{std::min(first.first, last.first),
                    std::min(first.second, last.second),
                    std::max(first.first, last.first),
                    std::max(first.second, last.second), std::string(item)};
}

}  // namespace

PointListError::PointListError(const std::string &item,
                               const std::string &reason)
    : std::runtime_error("bad point '" + item + "': " + reason), item_(item) {}

std::vector<PointRange> parsePointList(const std::vector<std::string> &words) {
  std::vector<PointRange> ranges;
  for (const auto &word : words) {
    std::string_view rest(word);
    while (!rest.empty()) {
      const auto comma = rest.find(',');
      const auto item = trim(rest.substr(0, comma));
      // Empty items (a trailing comma, ",,") carry nothing and are skipped.
      if (!item.empty()) ranges.push_back(parseItem(item));
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  if (ranges.empty()) throw PointListError("", "no crosspoint given");
  return ranges;
}

}  // namespace qbtool
