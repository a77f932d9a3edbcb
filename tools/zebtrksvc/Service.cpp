#include "tools/zebtrksvc/Service.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "ipc/strprintf.h"
#include "tools/zebtrksvc/Log.h"

namespace zebtrksvc {

Service::~Service() { Stop(); }

bool Service::Start(std::string& error) {
  // Every user may connect, as to the recorder's own service.
  if (!m_server.Create(kName, LocalSocketServer::AllUsers)) {
    error = strprintf("cannot listen on /tmp/%s: %s", kName, std::strerror(errno));
    return false;
  }
  m_stopping = false;
  try {
    m_acceptThread = std::thread(&Service::AcceptLoop, this);
  } catch (const std::system_error& failure) {
    m_server.Destroy();
    error = strprintf("cannot start the accept thread: %s", failure.what());
    return false;
  }
  return true;
}

void Service::Stop() {
  m_stopping = true;
  m_server.Destroy();  // removes the socket file; Accept ends with "socket closed"
  if (m_acceptThread.joinable()) m_acceptThread.join();
  m_hub.Shutdown();  // ends waits for events
  std::list<std::unique_ptr<Connection>> connections;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    connections.swap(m_connections);
  }
  for (auto& connection : connections) connection->Stop();
  for (auto& connection : connections) connection->Join();
}

size_t Service::connectionCount() {
  std::lock_guard<std::mutex> hold(m_lock);
  size_t live = 0;
  for (const auto& connection : m_connections) live += connection->finished() ? 0 : 1;
  return live;
}

void Service::Reap() {
  std::list<std::unique_ptr<Connection>> done;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    for (auto it = m_connections.begin(); it != m_connections.end();) {
      auto next = std::next(it);
      if ((*it)->finished()) done.splice(done.end(), m_connections, it);
      it = next;
    }
  }
  // Destruction joins threads that have already ended.
}

void Service::AcceptLoop() {
  while (!m_stopping) {
    LocalSocket socket;
    try {
      socket = m_server.Accept();
    } catch (const std::runtime_error& failure) {
      if (m_stopping) break;
      // Out of descriptors or a failing wait: say so, breathe, go on.
      Logf("accepting failed (%s); retrying", failure.what());
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      continue;
    }
    Reap();
    std::unique_ptr<Connection> connection;
    try {
      connection = std::make_unique<Connection>(std::move(socket), m_nextId++, m_catalog, m_hub);
      connection->Start();
    } catch (const std::exception& failure) {
      Logf("cannot serve a new connection: %s", failure.what());
      continue;  // the connection's socket closes with it
    }
    std::lock_guard<std::mutex> hold(m_lock);
    m_connections.push_back(std::move(connection));
  }
}

}  // namespace zebtrksvc
