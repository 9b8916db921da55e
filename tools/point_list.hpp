// point_list.hpp - crosspoint lists as test engineers write them on the
// command line: "ROW!COLUMN" and rectangles "ROW1!COL1:ROW2!COL2", 1-based,
// given as separate words or separated by commas.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace qbtool {

// One item of a list: a rectangle of crosspoints, a single point when the
// first and last corners are equal. Corners are ordered (first <= last).
struct PointRange {
  int firstRow;
  int firstColumn;
  int lastRow;
  int lastColumn;
  std::string text;  // the item as written, for messages

  bool operator==(const PointRange &other) const {
    return firstRow == other.firstRow && firstColumn == other.firstColumn &&
           lastRow == other.lastRow && lastColumn == other.lastColumn;
  }
};

class PointListError : public std::runtime_error {
 public:
  PointListError(const std::string &item, const std::string &reason);
  const std::string &item() const { return item_; }

 private:
  std::string item_;
};

// Parses every word; throws PointListError on the first bad item and when the
// words hold no item at all.
std::vector<PointRange> parsePointList(const std::vector<std::string> &words);

}  // namespace qbtool
