#include "vk_ec/well_rows.h"

#include "vk_ec/client.h"

namespace vk_ec {

template <typename T>
WellRows<T>::WellRows(Client& client) : client_(client), reply_(client.begin_reply()) {
  const MessageMgr::Header header = reply_.get_header();
  empty_ = header.is_end();
  if (empty_) return;
  header.check_expectation("QITEMS", header.count);
  items_ = reply_.get_data<std::string>(header);
  well_header_ = MessageMgr::MessageDecoder::encode_header("WELLNAME", 1, MessageMgr::CSTR);
  values_header_ = MessageMgr::MessageDecoder::encode_header("VALUES", items_.size(),
                                                             MessageMgr::headerType_for<T>());
  size_of_rows_ = reply_.remaining();
}

template <typename T>
bool WellRows<T>::begin_row() {
  if (!reply_.skip_header(well_header_)) {
    const MessageMgr::Header header = reply_.get_header();
    if (header.is_end()) return false;
    // This is another header, or the right one with a wrong type.
    header.check_expectation("WELLNAME", 1);
    well_ = reply_.get_string(header);
  } else {
    well_ = reply_.get_text();
  }
  return true;
}

template <typename T>
bool WellRows<T>::next(std::vector<T>& values) {
  if (std::exchange(empty_, false) || !begin_row()) {
    client_.end_reply(reply_);
    return false;
  }
  if (!reply_.skip_header(values_header_)) {
    reply_.get_header().check_expectation("VALUES", items_.size(), MessageMgr::headerType_for<T>());
  }
  reply_.append(items_.size(), values);
  if (estimated_count_ == 0) {
    estimated_count_ = size_of_rows_ / (size_of_rows_ - reply_.remaining());
  }
  return true;
}

template class WellRows<double>;
template class WellRows<std::string>;

}  // namespace vk_ec
