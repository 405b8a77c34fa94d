#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "vk_ec/message.h"

namespace vk_ec {

class Client;

/// The answer to a query of wells, read row by row as it is decoded, for callers who put the values
/// of thousands of wells elsewhere:
///
///   std::vector<double> values;
///   auto rows = client.query_wells<double>(wells, items);
///   while (rows.next(values)) remember(rows.well());
///
/// T is `double` or `std::string`. The simulator chooses the wells, and their order. The client
/// takes no other request before `next` has returned false.
template <typename T>
class WellRows {
 public:
  /// Blocks for the reply to a query of wells that `client` has just sent; `Client::query_wells`
  /// does both. The client must outlive the object.
  explicit WellRows(Client& client);
  WellRows(const WellRows&) = delete;
  WellRows& operator=(const WellRows&) = delete;

  /// Goes to the next well and appends its values, one per item, to `values`. After the last one,
  /// blocks until the simulator is ready again, and returns false; no further call may follow, and
  /// throws `std::length_error`. Throws as the client does for an answer that is not the expected
  /// one.
  bool next(std::vector<T>& values);

  /// The items as the simulator has repeated them.
  const std::vector<std::string>& items() const { return items_; }

  /// The items, moved out. Only after the last row: the rows are checked against them.
  std::vector<std::string> release_items() { return std::move(items_); }

  /// The present well; the caller may move from it.
  std::string& well() { return well_; }

  /// How many rows there are in all, judging by the size of the first one. Known from the first
  /// `next` on.
  std::size_t estimated_count() const { return estimated_count_; }

 private:
  // Reads the name of the next well. False at the end of the answer.
  bool begin_row();

  Client& client_;
  MessageMgr::MessageDecoder reply_;
  std::vector<std::string> items_;
  std::string well_;
  std::string well_header_;  // the bytes of the two headers that every row should have
  std::string values_header_;
  std::size_t size_of_rows_ = 0;
  std::size_t estimated_count_ = 0;
  bool empty_ = false;  // the answer has neither items nor rows, and next() has not said so yet
};

}  // namespace vk_ec
