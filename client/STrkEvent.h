// STrkEvent: one event of a service event queue ("result" -> "event" of
// ReadEventQueue).
//
// type 0: the queue is closed, the reader stops reading; type 1: the movie
// list has changed; any other value is ignored by the plug-in. `drive` names
// the drive the event concerns; the plug-in stores it and decides nothing on it.
//
// Ownership: none; copy freely. Threads: as for any plain value.
#pragma once

#include <cstdint>

struct STrkEvent {
  uint32_t type;   // "type"
  uint32_t drive;  // "drive"
};
