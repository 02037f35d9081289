// How vexactl takes its standard streams when it starts (errors() and
// restore_standard_streams() in command.h are the commands' side).
#ifndef VEXACTL_STREAMS_H
#define VEXACTL_STREAMS_H

#include <cstdio>

namespace vexactl {

// Keeps copies of standard output and standard error for vexactl's own
// output and messages, and points descriptors 1 and 2, where the library
// prints, at /dev/null. Returns the command's output stream; with standard
// output closed, one whose every write fails.
FILE *take_standard_streams();
// With -v the library's printed text goes to vexactl's standard error, a
// line at a time so that it keeps its place among vexactl's own lines.
void route_library_text(bool verbose);

} // namespace vexactl

#endif
