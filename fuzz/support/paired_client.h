#pragma once

/// A client whose connection is open from the start, over the stream in memory.
template <typename Version>
class PairedClient : public Version {
 public:
  PairedClient() : Version(-1) {}
  using Version::set_up;
};
