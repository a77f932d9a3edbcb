// ServiceProbe: tells whether the movie service answers on its socket, by a
// plain connect to /tmp/zebtrksvc (no request is sent), so that the tool can
// say "not running" before the plug-in silently starts without a service.
//
// Stateless; any thread. The probe's descriptor is closed before it returns.
#pragma once

#include <string>

class ServiceProbe {
 public:
  static constexpr const char* kSocketPath = "/tmp/zebtrksvc";

  enum class EState {
    kAnswers,     // a connection was accepted (or the service is busy)
    kNoSocket,    // nothing at the socket path
    kStale,       // a file is there but nobody listens (left by a dead service)
    kUnreachable  // another failure (permissions, not a socket, ...)
  };

  // Probes `socketPath`. `detail` receives a short reason for anything but
  // kAnswers (empty then).
  static EState Probe(std::string& detail, const char* socketPath = kSocketPath);

  // The message for a service that does not answer, with how to start the
  // simulator.
  static std::string NotRunningMessage(EState state, const std::string& detail);
};
