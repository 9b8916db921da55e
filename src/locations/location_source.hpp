// Building blocks of the location tables: a compile-time image of a table,
// generators that evaluate a wiring rule over every entry of such an image,
// and the copy through which a filler writes an exported table in full.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qbvisa_lowlevel.h"

namespace qbvisa::locations {

// A relay's place as a wiring list gives it: the relay group, then the byte
// within that group.
struct Relay {
  int32_t group;
  int32_t position;
};

constexpr PointLocation entryOf(Relay relay) {
  return PointLocation{relay.group, relay.position, 0};
}
constexpr PointLocation entryOf(PointLocation entry) { return entry; }

// Compile-time image of a row-major table, laid out like the exported arrays.
template <std::size_t Rows, std::size_t Columns>
struct Grid {
  PointLocation at[Rows][Columns];
};

// Compile-time image of a table indexed by row alone.
template <std::size_t Rows>
struct Line {
  PointLocation at[Rows];
};

// Evaluates rule(row, column) for every entry; the rule returns a Relay, or a
// full PointLocation where the third field matters.
template <std::size_t Rows, std::size_t Columns, typename Rule>
constexpr Grid<Rows, Columns> generateGrid(Rule rule) {
  Grid<Rows, Columns> image{};
  for (std::size_t r = 0; r < Rows; ++r)
    for (std::size_t c = 0; c < Columns; ++c)
      image.at[r][c] = entryOf(rule(static_cast<int>(r), static_cast<int>(c)));
  return image;
}

template <std::size_t Rows, typename Rule>
constexpr Line<Rows> generateLine(Rule rule) {
  Line<Rows> image{};
  for (std::size_t r = 0; r < Rows; ++r)
    image.at[r] = entryOf(rule(static_cast<int>(r)));
  return image;
}

// A filler writes every entry of its table, zeros included, so that running
// it again leaves exactly the same contents.
template <std::size_t Rows, std::size_t Columns>
inline void copyInto(PointLocation (&table)[Rows][Columns],
                     const Grid<Rows, Columns> &image) {
  std::memcpy(table, image.at, sizeof table);
}

template <std::size_t Rows>
inline void copyInto(PointLocation (&table)[Rows], const Line<Rows> &image) {
  std::memcpy(table, image.at, sizeof table);
}

}  // namespace qbvisa::locations
