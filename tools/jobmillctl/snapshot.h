// What `collect` hands to `serve`: one JSON document in a file, which is only ever replaced as a
// whole. So the server never waits for the collector, and nothing of the server's can reach it.
//
//   schema, version, host, every_seconds
//   runs     "document": {"status": as `status --json`, "measures": measures.h}
//   history  "document": as `history --json`
//   check    "document": as `check --json`
//
// Each of the three has "document" with the "time" at which it was looked for, in seconds since
// 1970, and of the last look "ok" and "took_seconds". When that failed, the document is an older
// one.
#pragma once

namespace jobmillctl {

/// Where the snapshot lies unless told otherwise.
inline constexpr const char* kSnapshotFile = "/run/jobmill-status/snapshot.json";

}  // namespace jobmillctl
