// matrix_picture.hpp - a chassis matrix drawn for the terminal: one line per
// row, one character per crosspoint ('X' closed, '.' open, '-' sub-matrix not
// fitted), sub-matrices separated by a blank, column numbers written
// vertically above their columns.
#pragma once

#include <string>

#include "chassis.hpp"

namespace qbtool {

struct PictureOptions {
  int width = 132;              // characters a line may take
  bool allSubMatrices = false;  // draw empty sub-matrices of wide matrices too
};

// When the whole matrix does not fit `width`, only sub-matrices with a closed
// crosspoint are drawn (unless allSubMatrices), side by side as far as the
// width allows, and a line names those left out.
std::string drawMatrix(const Geometry &geometry, const std::vector<bool> &closed,
                       const PictureOptions &options);

}  // namespace qbtool
