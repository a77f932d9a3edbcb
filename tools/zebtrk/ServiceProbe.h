// ServiceProbe: tells whether the movie service answers on its socket, before
// the plug-in (which has no timeouts and takes a protocol fault at its
// version check for "no drive") is let near it: it connects to
// /tmp/zebtrksvc, sends the protocol's version check and waits, against a
// time limit and a cancel descriptor, for an answer that is a MessagePack
// map with a "result" map holding "ver".
//
// Stateless; any thread. The probe's descriptor is closed before it returns.
#pragma once

#include <string>

class ServiceProbe {
 public:
  static constexpr const char* kSocketPath = "/tmp/zebtrksvc";

  enum class EState {
    kAnswers,      // the version check was answered in the protocol
    kNoSocket,     // nothing at the socket path
    kStale,        // a file is there but nobody listens (left by a dead service)
    kUnreachable,  // another failure to connect (permissions, not a socket, ...)
    kSilent,       // connected, but no answer within the limit (stopped, hung)
    kForeign,      // answered, or hung up, but not in the protocol
    kCancelled     // the cancel descriptor became readable first
  };

  // Probes `socketPath`, waiting at most `limitMs` for the answers;
  // `cancelFd` (-1: none) ends the wait. `detail` receives a short reason for
  // anything but kAnswers (empty then). With `driveDetected`, also asks
  // DetectDrive on the same connection and stores its answer there.
  static EState Probe(std::string& detail, int limitMs, int cancelFd, const char* socketPath = kSocketPath,
                      bool* driveDetected = nullptr);

  // The message for a service that cannot be used (any state but kAnswers
  // and kCancelled), with what to do about it. `limitMs` as given to Probe.
  static std::string Message(EState state, const std::string& detail, int limitMs);
};
