#include "matrix_picture.hpp"

#include <algorithm>

namespace qbtool {

namespace {

int digitsOf(int value) {
  int digits = 1;
  while (value >= 10) {
    value /= 10;
    ++digits;
  }
  return digits;
}

void trimRight(std::string &line) {
  while (!line.empty() && line.back() == ' ') line.pop_back();
}

// "2-5, 7, 9-10" of 0-based sub-matrix indices, written 1-based.
std::string listOfSubMatrices(const std::vector<int> &subs) {
  std::string text;
  for (size_t i = 0; i < subs.size();) {
    size_t j = i;
    while (j + 1 < subs.size() && subs[j + 1] == subs[j] + 1) ++j;
    if (!text.empty()) text += ", ";
    text += std::to_string(subs[i] + 1);
    if (j > i) text += "-" + std::to_string(subs[j] + 1);
    i = j + 1;
  }
  return text;
}

class Painter {
 public:
  Painter(const Geometry &geometry, const std::vector<bool> &closed)
      : geometry_(geometry), closed_(closed), labelWidth_(digitsOf(geometry.rows)) {}

  int blockWidth(size_t subCount) const {
    return labelWidth_ + 2 + static_cast<int>(subCount) * (geometry_.subColumns + 1) - 1;
  }

  bool hasClosed(int sub) const {
    for (int row = 0; row < geometry_.rows; ++row)
      for (int c = 0; c < geometry_.subColumns; ++c)
        if (closed_[geometry_.pointIndex(row, sub * geometry_.subColumns + c)])
          return true;
    return false;
  }

  void drawBlock(const std::vector<int> &subs, std::string &out) const {
    const int lastColumn = (subs.back() + 1) * geometry_.subColumns;
    for (int place = digitsOf(lastColumn) - 1; place >= 0; --place) {
      int scale = 1;
      for (int i = 0; i < place; ++i) scale *= 10;
      std::string line(static_cast<size_t>(labelWidth_ + 2), ' ');
      for (size_t i = 0; i < subs.size(); ++i) {
        if (i > 0) line += ' ';
        for (int c = 0; c < geometry_.subColumns; ++c) {
          const int column = subs[i] * geometry_.subColumns + c + 1;
          line += column >= scale ? static_cast<char>('0' + column / scale % 10) : ' ';
        }
      }
      trimRight(line);
      out += line + '\n';
    }
    for (int row = 0; row < geometry_.rows; ++row) {
      std::string label = std::to_string(row + 1);
      std::string line(static_cast<size_t>(labelWidth_) - label.size(), ' ');
      line += label + "  ";
      for (size_t i = 0; i < subs.size(); ++i) {
        if (i > 0) line += ' ';
        for (int c = 0; c < geometry_.subColumns; ++c) {
          const int column = subs[i] * geometry_.subColumns + c;
          if (!geometry_.fitted(column))
            line += '-';
          else
            line += closed_[geometry_.pointIndex(row, column)] ? 'X' : '.';
        }
      }
      out += line + '\n';
    }
  }

 private:
  const Geometry &geometry_;
  const std::vector<bool> &closed_;
  int labelWidth_;
};

}  // namespace

std::string drawMatrix(const Geometry &geometry, const std::vector<bool> &closed,
                       const PictureOptions &options) {
  Painter painter(geometry, closed);
  const auto subCount = static_cast<size_t>(geometry.subMatrices);
  const bool fitsWhole = painter.blockWidth(subCount) <= options.width;
  std::vector<int> drawn, leftOut;
  for (int sub = 0; sub < geometry.subMatrices; ++sub)
    (fitsWhole || options.allSubMatrices || painter.hasClosed(sub) ? drawn : leftOut)
        .push_back(sub);

  std::string out;
  for (size_t first = 0; first < drawn.size();) {
    size_t count = 1;
    while (first + count < drawn.size() &&
           painter.blockWidth(count + 1) <= options.width)
      ++count;
    const std::vector<int> block(drawn.begin() + static_cast<long>(first),
                                 drawn.begin() + static_cast<long>(first + count));
    if (!fitsWhole) {
      if (!out.empty()) out += '\n';
      out += (block.size() == 1 ? "sub-matrix " : "sub-matrices ") +
             listOfSubMatrices(block) + ":\n";
    }
    painter.drawBlock(block, out);
    first += count;
  }
  if (!leftOut.empty()) {
    if (!out.empty()) out += '\n';
    out += (leftOut.size() == 1 ? "sub-matrix " : "sub-matrices ") +
           listOfSubMatrices(leftOut) + ": nothing closed, not drawn" +
           " (--all draws them)\n";
  }
  return out;
}

}  // namespace qbtool
