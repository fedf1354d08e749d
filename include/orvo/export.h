#pragma once
// ORVO_EXPORT marks the classes, functions and variables of the public headers. The
// libraries are built with hidden symbol visibility, so everything else stays private
// to them and cannot clash with a host's symbols.
#define ORVO_EXPORT __attribute__((visibility("default")))
