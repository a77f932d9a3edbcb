// Service: publishes the service socket /tmp/zebtrksvc and serves every
// client that connects on a connection of its own, all at once.
//
// An accept thread takes connections and starts a Connection (with its
// thread) for each; connections that have ended are joined and dropped as new
// ones arrive. Stop removes the socket file, wakes and ends every connection
// (which releases its segments and queues) and joins every thread.
//
// Threads: Start and Stop are called by one thread (main); the accept thread
// and the connection threads are the service's own.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "client/TrkProtocol.h"
#include "ipc/LocalSocketServer.h"
#include "tools/zebtrksvc/Connection.h"
#include "tools/zebtrksvc/EventHub.h"
#include "tools/zebtrksvc/MovieCatalog.h"

namespace zebtrksvc {

class Service {
 public:
  // The service name: the socket is "/tmp/zebtrksvc".
  static constexpr const char* kName = trkprotocol::kServiceName;

  Service(MovieCatalog& catalog, EventHub& hub) : m_catalog(catalog), m_hub(hub) {}
  // Stop().
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Creates the socket (replacing a stale file) and starts accepting. The
  // caller has made sure that no live service answers there. Success: true.
  // Failure: false, `error` says why, nothing left behind.
  bool Start(std::string& error);
  // Ends everything (see above); harmless when not started or already stopped.
  void Stop();

  // Number of connections that are being served (for diagnostics and tests).
  size_t connectionCount();

 private:
  void AcceptLoop();
  // Joins and drops the connections that have finished.
  void Reap();

  MovieCatalog& m_catalog;
  EventHub& m_hub;
  LocalSocketServer m_server;
  std::thread m_acceptThread;
  std::atomic<bool> m_stopping{false};
  std::mutex m_lock;  // guards m_connections
  std::list<std::unique_ptr<Connection>> m_connections;
  unsigned m_nextId = 1;
};

}  // namespace zebtrksvc
