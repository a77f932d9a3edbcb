// Text: a C text as a framework string, through the one string constructor
// that the plug-in relies on the framework for (text and length, -1 meaning
// up to the terminating zero). The plug-in never converts a C text to a
// zeb::CString implicitly: that would link the framework's one-argument
// constructor, which a framework offering only the plug-in's contract need
// not have. A null text is the empty text.
//
// Pure; thread-safe.
#pragma once

#include <zeb/CString.h>

namespace zeb {
namespace trk {

inline zeb::CString Text(const char* text) { return zeb::CString(text ? text : "", -1); }

}  // namespace trk
}  // namespace zeb
