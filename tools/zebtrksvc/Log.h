// Log: the simulator's diagnostic lines on stderr, written only with
// --verbose. Normal operation prints nothing; errors that end the program are
// printed by main() whatever the setting.
//
// Threads: SetVerbose is called once by main() before any thread starts; Logf
// may be called from any thread (each line is written whole).
#pragma once

namespace zebtrksvc {

// Turns the diagnostic lines on or off (off at start).
void SetVerbose(bool verbose);
// True when diagnostic lines are written.
bool Verbose();
// Writes "zebtrksvc: <formatted text>\n" to stderr when verbose; nothing
// otherwise.
void Logf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace zebtrksvc
