// Api.h: the export marker of the zeb framework libraries (libzeb,
// libzebfile, libzebreduce).
//
// Every class and function of the framework is exported with default
// visibility, so that a plug-in built with -fvisibility=hidden still links
// against the framework's symbols.
#pragma once

#define ZEB_API __attribute__((visibility("default")))
