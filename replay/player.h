// The player: plays a trace back on the local driver, one thread per recorded thread in the
// recorded order, and compares every frame it draws with the frame the application drew when the
// trace holds it.
#pragma once

#include <cstdint>
#include <string>

namespace kv::replay {

struct Options {
    std::string trace;
    uint64_t firstFrame = 0;             // frames reported (compared, dumped) from here
    uint64_t lastFrame = UINT64_MAX;     // the replay stops after this frame
    uint32_t loops = 0;                  // times the range is played again
    bool compare = true;                 // compare with the saved frame buffers
    bool benchmark = false;              // only the calls: no comparison, dumps or progress
    bool window = false;                 // real windows instead of pbuffers
    bool quiet = false;                  // no per-frame lines
    bool checkErrors = false;            // ask the driver for its error after every OpenGL ES call
    uint32_t tolerance = 0;              // largest channel difference still taken as equal
    std::string dumpDirectory;           // the replayed frames as PNG files
    std::string eglLibrary, glesLibrary; // the local driver, when not the default one
};

// Plays the trace; returns the exit status of `kalvoren replay` (0: played and every compared
// frame within the tolerance; 1: frames differ or records could not be played; 2: the trace could
// not be opened or the driver not loaded).
int play(const Options &options);

// "frame-000012.png"
std::string frameFileName(uint64_t frame);

} // namespace kv::replay
