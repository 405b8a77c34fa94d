#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

#include "tests/support/generators.h"
#include "tests/support/wire_bytes.h"
#include "vk_ec/message.h"

// Messages of any shape, for properties of the codec and of the transport.

/// A header with its data. A MESS header has a count that no data follow.
struct Item {
  std::string name;
  std::variant<std::uint64_t, std::vector<double>, std::vector<int>, std::vector<std::string>> data;
};

/// An item as it travels, written without the code under test.
inline std::string Encoded(const Item& item) {
  if (const auto* count = std::get_if<std::uint64_t>(&item.data)) {
    return wire::Head(item.name, *count, "MESS");
  }
  if (const auto* doubles = std::get_if<std::vector<double>>(&item.data)) {
    return wire::Doub(item.name, *doubles);
  }
  if (const auto* ints = std::get_if<std::vector<int>>(&item.data)) {
    return wire::Inte(item.name, *ints);
  }
  return wire::Cstr(item.name, std::get<std::vector<std::string>>(item.data));
}

inline std::string Encoded(const std::vector<Item>& items) {
  std::string bytes;
  for (const Item& item : items) bytes += Encoded(item);
  return bytes;
}

inline std::ostream& operator<<(std::ostream& out, const Item& item) {
  out << "item ";
  rc::show(Encoded(item), out);
  return out;
}

/// Appends the item as the program does.
inline void Add(vk_ec::MessageMgr::MessageBuilder& builder, const Item& item) {
  if (const auto* count = std::get_if<std::uint64_t>(&item.data)) {
    builder.add_MESS_header(item.name, *count);
  } else if (const auto* doubles = std::get_if<std::vector<double>>(&item.data)) {
    builder.add_data(item.name, *doubles);
  } else if (const auto* ints = std::get_if<std::vector<int>>(&item.data)) {
    builder.add_data(item.name, *ints);
  } else {
    builder.add_data(item.name, std::get<std::vector<std::string>>(item.data));
  }
}

namespace any {

/// A header's name: of any bytes, and up to the longest.
inline rc::Gen<std::string> HeaderName() {
  return rc::gen::weightedOneOf<std::string>(
      {{6, Bytes()},
       {1, rc::gen::map(rc::gen::inRange<std::size_t>(250, 256),
                        [](std::size_t size) { return std::string(size, 'N'); })}});
}

inline rc::Gen<Item> MessageItem() {
  using Data = decltype(Item::data);
  return rc::gen::build<Item>(
      rc::gen::set(&Item::name, HeaderName()),
      rc::gen::set(&Item::data,
                   rc::gen::oneOf(rc::gen::construct<Data>(rc::gen::arbitrary<std::uint64_t>()),
                                  rc::gen::construct<Data>(Doubles()),
                                  rc::gen::construct<Data>(rc::gen::arbitrary<std::vector<int>>()),
                                  rc::gen::construct<Data>(
                                      rc::gen::container<std::vector<std::string>>(Bytes())))));
}

inline rc::Gen<std::vector<Item>> MessageItems() {
  return rc::gen::resize(20, rc::gen::container<std::vector<Item>>(MessageItem()));
}

}  // namespace any
