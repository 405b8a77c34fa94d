// The folder serves the requests of one run: it turns the master's packed requests into calls of a
// connector and the results into replies. connector_socket_wrapper.cc has the loop, handlers.cc a
// function per request, packing.h the shapes that requests and replies are made of. A new request
// gets a code in net/master_link.h, a handler, and a line in the table of handlers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "connector/connector_base.h"

class Socket;
class flog;
class sendbuf;

/// The controller of one run: serves the master's requests one at a time, in their order, until
/// the master asks for shutdown or a request fails. The protocol has no error reply, so the master
/// learns of a failure by the end of the connection, and of its reason from the log.
class ConnectorSocketWrapper {
 public:
  /// The controller will drive the simulator that listens on `port` of `host`; Connect() gives the
  /// simulator `timeout` seconds to begin to listen. `version` 20162 chooses version 2016.2 of the
  /// simulator's protocol, every other value version 2017.2. `master` and `log` stay the caller's
  /// and must outlive the object.
  ConnectorSocketWrapper(int version, const std::string& host, Socket* master, int port,
                         int timeout, flog& log);

  /// The same over a given connector.
  ConnectorSocketWrapper(std::unique_ptr<ConnectorBase> connector, const std::string& host,
                         Socket* master, int port, int timeout, flog& log);

  ConnectorSocketWrapper(const ConnectorSocketWrapper&) = delete;
  ConnectorSocketWrapper& operator=(const ConnectorSocketWrapper&) = delete;
  virtual ~ConnectorSocketWrapper();

  /// The request loop. Only one controller of a process may be at work, since all share one receive
  /// buffer. Returns 0 after the shutdown request was served, 1 when no frame could be received, 2
  /// when a request failed; `error` holds the reason of 1 and 2.
  int ProcessRequests(std::string& error);

  /// Serves one request. `body` points to the bytes after the request's code, in a receive buffer
  /// of master_link::kMaxFrame bytes. Returns 0 when the request was served or nobody knows its
  /// code, which gets no answer; 1 with the reason in `error` when the request failed with a
  /// `std::exception`. Other exceptions pass through.
  int Handle(unsigned code, const unsigned char* body, std::string& error);

  /// Ends `reply` with the acknowledgement and sends it. Returns what sendbuf::Send() returns.
  int ReturnWithAck(sendbuf& reply, int ack, int code);

  // The handlers, one per request code. Each unpacks the request's fields in the order in which
  // the master packs them, calls the connector and sends the reply.
  void Connect(const unsigned char* body);
  void Shutdown();
  void GetVersion(const unsigned char* body);
  void GetMetricFlag(const unsigned char* body);
  void GetCompFlag(const unsigned char* body);
  void GetStartDate(const unsigned char* body);
  void GetDate(const unsigned char* body);
  void GetTimeDays(const unsigned char* body);
  void GetEOSProps(const unsigned char* body);
  void SetWellInjectionSource(const unsigned char* body);
  void Newton(const unsigned char* body);
  void RunUntil(const unsigned char* body);
  void GetTermFlag(const unsigned char* body);
  void GetWellStatus(const unsigned char* body);
  void GetWellData(const unsigned char* body);
  void SetWellStatus(const unsigned char* body);
  void GetWellIPRData(const unsigned char* body);
  void GetWellVariables(const unsigned char* body);
  void SetWellUptime(const unsigned char* body);
  void SetWellConstraints(const unsigned char* body);
  void SetWellInjectionComposition(const unsigned char* body);

 private:
  /// Receives one frame into `buffer` of master_link::kMaxFrame bytes. False when none came.
  bool ReceiveFrame(unsigned char* buffer);
  void Fail(const char* text, const char* reason, std::string& error);
  void RunHandler(unsigned code, const unsigned char* body);

  /// Receives the frame by which the master asks for the next well's record. Throws `complaint` as
  /// a corvane_comms_exception when that does not come or has another code.
  void AwaitSubRequest(unsigned code, const char* complaint);
  void Acknowledge(int code);
  void ReturnDate(int day, int month, int year, int code);
  void ReturnTable(const DynWellIPR& table, bool with_mole_fractions);

  std::string host_;
  Socket* master_;
  std::unique_ptr<ConnectorBase> connector_;
  flog* log_;
  std::int32_t port_;
  std::int32_t timeout_;
};
