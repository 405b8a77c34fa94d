#include <sys/socket.h>

#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "master/errors.h"
#include "master/run.h"
#include "tests/master/exchanges.h"
#include "tests/support/bytes.h"
#include "tests/support/socket_pair.h"

namespace {

using testing::HasSubstr;

// What the call makes of a stream of bytes that ends.
template <typename Check>
void Play(const Exchange& exchange, const std::string& stream, const Check& check) {
  SocketPair pair;
  WriteAll(pair.peer.get(), stream);
  shutdown(pair.peer.get(), SHUT_WR);
  master::Run run{master::FrameChannel(std::move(pair.ours))};
  check(run, exchange);
}

void ExpectProtocolError(const Exchange& exchange, const std::string& stream,
                         const std::string& text, const std::string& what) {
  Play(exchange, stream, [&](master::Run& run, const Exchange& played) {
    try {
      played.call(run);
      ADD_FAILURE() << what << ": taken as good";
    } catch (const master::ProtocolError& error) {
      EXPECT_THAT(error.what(), HasSubstr(text)) << what;
    } catch (const std::exception& error) {
      ADD_FAILURE() << what << ": " << error.what();
    }
  });
}

class EveryReply : public testing::TestWithParam<Exchange> {
 protected:
  // The frames of the exchange, with frame `which` having `body` instead.
  std::string With(std::size_t which, const std::string& body) const {
    std::string stream;
    for (std::size_t i = 0; i < Count(); ++i) stream += Frame(i == which ? body : Body(i));
    return stream;
  }
  std::string Body(std::size_t i) const { return Bytes(GetParam().replies[i]); }
  std::size_t Count() const { return GetParam().replies.size(); }
};

TEST_P(EveryReply, EndOfConnectionIsAFailedRequestBetweenFramesAndALostLinkWithin) {
  const std::string stream = With(Count(), "");
  std::size_t begin = 0;
  for (std::size_t i = 0; i < Count(); begin += 4 + Body(i).size(), ++i) {
    for (std::size_t cut = 0; cut < 4 + Body(i).size(); ++cut) {
      Play(GetParam(), stream.substr(0, begin + cut),
           [&](master::Run& run, const Exchange& played) {
             if (cut == 0) {
               EXPECT_THROW(played.call(run), master::RequestFailed) << "frame " << i;
             } else {
               EXPECT_THROW(played.call(run), master::LinkLost)
                   << "frame " << i << " cut at " << cut;
             }
           });
    }
  }
}

TEST_P(EveryReply, EveryShorterBodyIsRefused) {
  for (std::size_t i = 0; i < Count(); ++i) {
    for (std::size_t size = 0; size < Body(i).size(); ++size) {
      ExpectProtocolError(GetParam(), With(i, Body(i).substr(0, size)), "Bad answer to request ",
                          "frame " + std::to_string(i) + " of " + std::to_string(size) + " bytes");
    }
  }
}

TEST_P(EveryReply, TrailingByteIsRefused) {
  for (std::size_t i = 0; i < Count(); ++i) {
    ExpectProtocolError(GetParam(), With(i, Body(i) + '\0'), "it has 1 bytes too many",
                        "frame " + std::to_string(i));
  }
}

TEST_P(EveryReply, AnotherCodeIsRefused) {
  for (std::size_t i = 0; i < Count(); ++i) {
    std::string body = Body(i);
    body.replace(0, 4, Bytes("15000000"));
    ExpectProtocolError(GetParam(), With(i, body), "it carries the code 21 instead of ",
                        "frame " + std::to_string(i));
  }
}

TEST_P(EveryReply, AcknowledgementOtherThanZeroIsRefused) {
  for (std::size_t i = 0; i < Count(); ++i) {
    std::string body = Body(i);
    body.replace(body.size() - 4, 4, Bytes("01000000"));
    ExpectProtocolError(GetParam(), With(i, body), "its acknowledgement is 1 instead of 0",
                        "frame " + std::to_string(i));
  }
}

INSTANTIATE_TEST_SUITE_P(Codes, EveryReply, testing::ValuesIn(Exchanges()),
                         [](const auto& tested) { return std::string(tested.param.name); });

struct BadCount {
  const char* name;
  const char* exchange;
  std::vector<const char*> replies;
  const char* text;
};

void PrintTo(const BadCount& bad, std::ostream* out) {
  *out << bad.name;
}

class EveryCount : public testing::TestWithParam<BadCount> {};

TEST_P(EveryCount, IsCheckedBeforeAnythingIsAllocated) {
  std::string stream;
  for (const char* reply : GetParam().replies) stream += Frame(Bytes(reply));
  ExpectProtocolError(ExchangeNamed(GetParam().exchange), stream, GetParam().text, GetParam().name);
}

const char* const kMinusOne = "it has a negative count, -1";
const char* const kTooMany = "2147483647 entries announced";

INSTANTIATE_TEST_SUITE_P(
    Negative, EveryCount,
    testing::Values(
        BadCount{"Wells", "GetWellStatus", {"06000000 ffffffff 00000000"}, kMinusOne},
        BadCount{"NameLength",
                 "GetWellStatus",
                 {"06000000 01000000 ffffffff 00000000 00000000 00000000"},
                 kMinusOne},
        BadCount{"StatusLength",
                 "GetWellData",
                 {"0a000000 02000000 00000000", "00100000 ffffffff 00000000"},
                 kMinusOne},
        BadCount{"Components", "GetEOSProps", {"0e000000 00000000 ffffffff 00000000"}, kMinusOne},
        BadCount{"EOSSeries",
                 "GetEOSProps",
                 {"0e000000 00000000 00000000 ffffffff 00000000"},
                 kMinusOne},
        BadCount{"Variables", "GetWellVariables", {"0f000000 ffffffff 00000000"}, kMinusOne},
        BadCount{"IPRSeries",
                 "GetWellIPRDataOfTubingHead",
                 {"10000000 01000000 0a000000 00000000", "01100000 ffffffff"},
                 kMinusOne},
        BadCount{
            "DataRecords", "GetWellData", {"0a000000 ffffffff 00000000"}, "-1 records for 2 wells"},
        BadCount{"IPRRecords",
                 "GetWellIPRDataOfTubingHead",
                 {"10000000 ffffffff 0a000000 00000000"},
                 "-1 records for 1 wells"}),
    [](const auto& tested) { return std::string(tested.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Huge, EveryCount,
    testing::Values(
        BadCount{"Wells", "GetWellStatus", {"06000000 ffffff7f 00000000"}, kTooMany},
        BadCount{"NameLength",
                 "GetWellStatus",
                 {"06000000 01000000 ffffff7f 00000000 00000000 00000000"},
                 kTooMany},
        BadCount{"Components", "GetEOSProps", {"0e000000 00000000 ffffff7f 00000000"}, kTooMany},
        BadCount{"Variables", "GetWellVariables", {"0f000000 ffffff7f 00000000"}, kTooMany},
        BadCount{"FewerRecordsThanWells",
                 "GetWellData",
                 {"0a000000 01000000 00000000"},
                 "1 records for 2 wells"},
        BadCount{"MoreRecordsThanWells",
                 "GetWellData",
                 {"0a000000 03000000 00000000"},
                 "3 records for 2 wells"}),
    [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
