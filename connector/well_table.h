#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "vk_ec/well_rows.h"

namespace connector {

/// The whole answer to a query of wells, T being `double` or `std::string`. The values stand row
/// after row in one list, so that an answer for thousands of wells takes a few allocations.
template <typename T>
struct WellTable {
  std::vector<std::string> wells;
  std::vector<std::string> items;
  std::vector<T> values;

  /// The values of `wells[well]`, one per item.
  std::span<const T> row(std::size_t well) const {
    return std::span(values).subspan(well * items.size(), items.size());
  }
};

/// Reads all rows. Blocks until the simulator is ready again, and throws as `WellRows::next` does.
template <typename T>
WellTable<T> TakeTable(::vk_ec::WellRows<T> rows) {
  WellTable<T> table;
  while (rows.next(table.values)) {
    if (table.wells.empty()) {
      table.wells.reserve(rows.estimated_count());
      table.values.reserve(rows.estimated_count() * rows.items().size());
    }
    table.wells.push_back(std::move(rows.well()));
  }
  table.items = rows.release_items();
  return table;
}

}  // namespace connector
