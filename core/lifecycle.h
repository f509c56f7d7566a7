// What exists once per process and once per thread before any call is recorded: the library's
// entry routine (process and thread attach and detach) drives the per-thread call records, the
// default host library search and, at process detach, the end of the recording.
#pragma once

#include "host/host_paths.h"
#include "trace/record.h"
