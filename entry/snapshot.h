// The render-state snapshot: the calls that make again, in a trace that starts late, what the
// application made before recording started. Installed as the frame control's snapshot writer, so
// that a start by frame number and a start ordered over the network run the same code.
#pragma once

namespace kv::snapshot {

// Installs the writer (done at load; callable again, for tests that reset the frame control).
void install();

} // namespace kv::snapshot
