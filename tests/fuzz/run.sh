#!/bin/sh
# Builds the fuzz targets (the trace reader; the control protocol's parsers) with clang in a build directory of its own and runs it for a
# bounded time: tests/fuzz/run.sh [SECONDS] (60 by default). Exits non-zero when the fuzzer finds
# an input that crashes, hangs or exhausts memory; the input is kept in the build directory.
#
#   KV_FUZZ_BUILD  build directory (default: build-fuzz in the source tree)
#   KV_FUZZ_JOBS   parallel compile jobs (default: 2)
set -eu

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
seconds=${1:-60}
build=${KV_FUZZ_BUILD:-$root/build-fuzz}
jobs=${KV_FUZZ_JOBS:-2}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_FUZZ=ON >/dev/null
ninja -C "$build" -j "$jobs" kv_reader_fuzz kv_command_fuzz kv_link_fuzz

# The committed seeds stay as they are; what the fuzzer learns grows in a corpus of its own.
work="$here/corpus-work"
mkdir -p "$work" "$build/fuzz-artifacts"
"$build/bin/kv_reader_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
    -artifact_prefix="$build/fuzz-artifacts/" -print_final_stats=1 "$work" "$here/corpus"

# The control protocol's parsers are small: a fraction of the time finds what there is to find.
command_seconds=$(( seconds / 4 > 5 ? seconds / 4 : 5 ))
mkdir -p "$here/corpus-commands-work"
"$build/bin/kv_command_fuzz" -max_total_time="$command_seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
    -artifact_prefix="$build/fuzz-artifacts/" -print_final_stats=1 "$here/corpus-commands-work"

# The counter link's receivers, as small: the same fraction.
mkdir -p "$here/corpus-link-work"
"$build/bin/kv_link_fuzz" -max_total_time="$command_seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
    -artifact_prefix="$build/fuzz-artifacts/" -print_final_stats=1 "$here/corpus-link-work"
