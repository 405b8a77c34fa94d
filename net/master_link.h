#pragma once

#include <cstdint>

// The numbers of the link between the master and the controller of its run. Both ends, their
// benchmarks and their fuzz targets take them from here; tests hold the bytes themselves.
// docs/master-protocol.md describes the link.

namespace master_link {

/// Request codes, the first four bytes of every request and of its reply.
enum Code : std::uint32_t {
  kConnect = 1,
  kGetDate = 2,
  kGetMetricFlag = 3,
  kGetTimeDays = 4,
  kGetCompFlag = 5,
  kGetWellStatus = 6,
  kNewton = 7,
  kRunUntil = 8,
  kGetTermFlag = 9,
  kGetWellData = 10,
  kSetWellStatus = 11,
  kSetWellUptime = 12,
  kSetWellConstraints = 13,
  kGetEOSProps = 14,
  kGetWellVariables = 15,
  kGetWellIPRData = 16,
  kGetVersion = 17,
  kSetWellInjectionSource = 18,
  kSetWellInjectionComposition = 19,
  kGetStartDate = 20,
  kWellDataRecord = 4096,  ///< one well's record within kGetWellData
  kWellIPRRecord = 4097,   ///< one well's table within kGetWellIPRData
  kShutdown = 65520,
};

/// Bytes of the longest frame body that the controller receives, which is the size of its buffer.
/// Replies may be longer.
constexpr int kMaxFrame = 65536;

/// Bytes of the longest line of the handshake. A longer one never completes.
constexpr int kMaxLine = 32767;

/// Bytes of the acknowledgement, a 32-bit 0, that ends every reply.
constexpr int kAckSize = 4;

/// Points of an inflow table. A reply has the mole fractions of as many points, whatever number the
/// first reply has announced.
constexpr int kTablePoints = 10;

}  // namespace master_link
