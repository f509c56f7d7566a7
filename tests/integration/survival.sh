#!/usr/bin/env bash
# What a trace survives: a real program on a real driver, ended in every way a program may end,
# its trace then read back. Every ending that runs any code of the library leaves a file that
# holds exactly its records; SIGKILL leaves a tail that `kalvoren info` counts and `kalvoren
# repair` cuts. Also: bounded memory, two recorders, a file cut short, the file-size limit, a full
# disk (when a small file system can be mounted), and reads of memory that no driver reads.
#   survival.sh PROGRAM BUILD_DIR
set -u
program=$1
build=$2
kalvoren=$build/bin/kalvoren
work=$(mktemp -d)
mounted=""
cleanup() {
    [ -n "$mounted" ] && umount "$mounted" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
failures=0
passed=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
ok() {
    echo "ok: $*"
    passed=$((passed + 1))
}

# config NAME [OUTPUT]: a configuration that records every frame into OUTPUT (default NAME.kalvoren).
config() {
    local out=${2:-$work/$1.kalvoren}
    cat >"$work/$1.json" <<JSON
{ "*": { "Tracing": { "OutputFilename": "$out", "EndFrame": 4294967295 } } }
JSON
    echo "$work/$1.json"
}

# traced NAME ARGS...: runs the program traced, in the background, its output in NAME.out/.err.
traced() {
    local name=$1
    shift
    # A background job of a script starts with SIGINT and SIGQUIT ignored: give them back their
    # default action, as a program started from a terminal has it.
    KALVOREN_CONFIG=$(config "$name") LD_LIBRARY_PATH=$build/lib env --default-signal=INT,QUIT "$program" "$@" \
        >"$work/$name.out" 2>"$work/$name.err" &
    pid=$!
}

wait_ready() {
    for _ in $(seq 1 1200); do
        grep -q ready "$work/$1.out" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

# exact NAME: the trace reads back whole and the file holds its header, its records (and its end
# marker) and not one byte more.
exact() {
    local file=$work/$1.kalvoren info
    info=$("$kalvoren" info "$file" 2>&1)
    local rc=$?
    local header records size marker=0
    header=$(sed -n 's/^Format:.*header of \([0-9]*\) bytes.*/\1/p' <<<"$info")
    records=$(sed -n 's/^Record bytes: *\([0-9]*\) bytes.*/\1/p' <<<"$info")
    grep -q "^End: *closed" <<<"$info" && marker=10
    size=$(stat -c %s "$file" 2>/dev/null || echo -1)
    if [ $rc -ne 0 ] || [ -z "$header" ] || [ -z "$records" ] || grep -q "^Tail:" <<<"$info" ||
        [ "$size" -ne $((header + records + marker)) ]; then
        fail "$1: the trace is not exact (kalvoren info exit $rc, $size bytes for ${header:-?} + ${records:-?} + $marker)"
        grep -E "^(End|Tail|Problems):" <<<"$info" | sed 's/^/    /'
        return 1
    fi
    return 0
}

# ---- Endings that run code of ours: the file holds exactly its records -------------------------
for sig in INT TERM HUP QUIT USR1 PIPE ALRM; do
    traced "sig$sig" loop
    if ! wait_ready "sig$sig"; then
        fail "SIG$sig: the program did not start"
        kill -9 $pid 2>/dev/null
        continue
    fi
    kill -s "$sig" $pid
    wait $pid
    status=$?
    expected=$((128 + $(kill -l "$sig")))
    if [ $status -ne $expected ]; then
        fail "SIG$sig: exit status $status, $expected expected (the signal's own)"
    elif exact "sig$sig"; then
        ok "SIG$sig ends the program as before and leaves an exact file ($(stat -c %s "$work/sig$sig.kalvoren") bytes)"
    fi
done

for mode in abort segv exit; do
    traced "$mode" "$mode"
    wait $pid
    status=$?
    case $mode in
    abort) expected=134 ;;
    segv) expected=139 ;;
    exit) expected=3 ;;
    esac
    if [ $status -ne $expected ]; then
        fail "$mode: exit status $status, $expected expected"
    elif exact "$mode"; then
        ok "$mode: status $status and an exact file"
    fi
done

# The program's own handler runs, and the file is exact whether it ends the program or not.
traced handler-exit handler-exit
wait_ready handler-exit
kill -INT $pid
wait $pid
status=$?
if [ $status -ne 7 ]; then
    fail "handler-exit: exit status $status, 7 expected (the program's own handler)"
elif exact handler-exit; then
    ok "a program's own SIGINT handler that ends it still runs, and the file is exact"
fi
traced handler-go-on handler-go-on
wait_ready handler-go-on
kill -INT $pid
wait $pid
status=$?
if [ $status -ne 0 ]; then
    fail "handler-go-on: exit status $status, 0 expected"
elif ! "$kalvoren" info "$work/handler-go-on.kalvoren" | grep -q "^End: *closed"; then
    fail "handler-go-on: the recording did not go on to a clean close"
elif exact handler-go-on; then
    ok "a program that lives on after its own SIGINT handler goes on being recorded"
fi

# ---- SIGKILL: a recognisable tail, cut by repair ---------------------------------------------
traced kill loop 256
wait_ready kill
sleep 0.3
kill -KILL $pid
wait $pid 2>/dev/null
before=$(stat -c %s "$work/kill.kalvoren")
tail_line=$("$kalvoren" info "$work/kill.kalvoren" 2>&1 | grep "^Tail:")
tail_bytes=$(sed -E 's/^Tail: *([0-9]+) bytes.*/\1/' <<<"$tail_line")
if [ -z "$tail_line" ]; then
    fail "SIGKILL: kalvoren info reports no tail"
elif ! "$kalvoren" repair "$work/kill.kalvoren" >"$work/repair.out"; then
    fail "repair failed: $(cat "$work/repair.out")"
elif [ $(($(stat -c %s "$work/kill.kalvoren") + tail_bytes)) -ne "$before" ]; then
    fail "repair cut $((before - $(stat -c %s "$work/kill.kalvoren"))) bytes, info said $tail_bytes"
elif exact kill; then
    ok "SIGKILL leaves $tail_bytes bytes of tail, which repair cuts (the file had $before bytes)"
fi

# ---- Memory: a bounded window, whatever the trace's size -----------------------------------------
plain=$("$program" frames 300 | sed -n 's/^peak \([0-9]*\) KiB/\1/p')
KALVOREN_CONFIG=$(config big) LD_LIBRARY_PATH=$build/lib "$program" frames 300 >"$work/big.out" 2>"$work/big.err"
tracedPeak=$(sed -n 's/^peak \([0-9]*\) KiB/\1/p' "$work/big.out")
size=$(stat -c %s "$work/big.kalvoren" 2>/dev/null || echo 0)
if [ -z "$plain" ] || [ -z "$tracedPeak" ]; then
    fail "memory: the program did not report its peak"
elif [ $((tracedPeak - plain)) -gt $((64 * 1024)) ]; then
    fail "memory: peak $tracedPeak KiB traced, $plain KiB plain, for a trace of $((size >> 20)) MiB"
else
    ok "memory: a $((size >> 20)) MiB trace adds $(((tracedPeak - plain) / 1024)) MiB to the peak resident set ($((plain / 1024)) MiB plain)"
fi
rm -f "$work/big.kalvoren"

# ---- Two recorders, one file name -----------------------------------------------------------
shared=$work/shared.kalvoren
KALVOREN_CONFIG=$(config one "$shared") LD_LIBRARY_PATH=$build/lib "$program" loop >"$work/one.out" 2>"$work/one.err" &
one=$!
wait_ready one
KALVOREN_CONFIG=$(config two "$shared") LD_LIBRARY_PATH=$build/lib "$program" loop >"$work/two.out" 2>"$work/two.err" &
two=$!
wait_ready two
kill -TERM $one $two
wait $one
wait $two
others=$(ls "$work"/shared-*.kalvoren 2>/dev/null | head -1)
if ! grep -q "is being written by another recording process" "$work/two.err"; then
    fail "two recorders: the second did not say it records elsewhere"
elif [ -z "$others" ] || ! "$kalvoren" info "$shared" >/dev/null || ! "$kalvoren" info "$others" >/dev/null; then
    fail "two recorders: not two whole traces"
else
    ok "two recorders of one name write two whole traces ($(basename "$shared"), $(basename "$others"))"
fi

# ---- A file cut short by another program while it is written -----------------------------------
traced cut loop
wait_ready cut
truncate -s 0 "$work/cut.kalvoren"
sleep 0.5
kill -TERM $pid
wait $pid
status=$?
if [ $status -ne 143 ]; then
    fail "cut short: exit status $status, 143 expected (the program ran on until SIGTERM)"
elif ! grep -q "cut short by another program" "$work/cut.err"; then
    fail "cut short: no message"
else
    ok "a trace file truncated by another program stops the recording with a message; the program runs on"
fi

# ---- The file-size limit ---------------------------------------------------------------------
(
    ulimit -f 2048
    KALVOREN_CONFIG=$(config limit) LD_LIBRARY_PATH=$build/lib exec "$program" frames 40
) >"$work/limit.out" 2>"$work/limit.err"
status=$?
if [ $status -ne 0 ]; then
    fail "file-size limit: exit status $status (the recorder must never cause SIGXFSZ)"
elif ! grep -q "The trace reached the file-size limit" "$work/limit.err"; then
    fail "file-size limit: no message"
elif exact limit; then
    ok "a 2 MiB file-size limit stops the recording with a message; the program ends normally, the trace is exact ($(stat -c %s "$work/limit.kalvoren") bytes)"
fi

# ---- A full disk (needs a small file system of our own) --------------------------------------
mkdir -p "$work/small"
if [ "$(id -u)" = 0 ] && mount -t tmpfs -o size=3m tmpfs "$work/small" 2>/dev/null; then
    mounted=$work/small
    start=$(date +%s%N)
    KALVOREN_CONFIG=$(config full "$work/small/full.kalvoren") LD_LIBRARY_PATH=$build/lib \
        "$program" frames 60 >"$work/full.out" 2>"$work/full.err"
    status=$?
    took=$((($(date +%s%N) - start) / 1000000))
    cp "$work/small/full.kalvoren" "$work/full.kalvoren" 2>/dev/null
    if [ $status -ne 0 ]; then
        fail "full disk: exit status $status"
    elif ! grep -q "ERROR: ERROR: Writing to trace file failed. Size attempted: " "$work/full.err"; then
        fail "full disk: not the write-failure message"
    elif [ "$(grep -c "Writing to trace file failed" "$work/full.err")" -gt 8 ]; then
        fail "full disk: the message repeats more than 8 times"
    elif exact full; then
        ok "a full disk is reported (at most 8 times); the program ran on (${took} ms for 60 frames), the trace is exact"
    fi
else
    echo "skipped: full disk (mounting a small file system needs root)"
fi

# ---- Memory no driver reads, with the program's own fault handler installed --------------------
for mode in guard guard-default; do
    if ! "$program" "$mode" >"$work/$mode.plain" 2>&1; then
        fail "$mode: fails without the library: $(cat "$work/$mode.plain")"
        continue
    fi
    KALVOREN_CONFIG=$(config "$mode") LD_LIBRARY_PATH=$build/lib "$program" "$mode" >"$work/$mode.out" 2>"$work/$mode.err"
    status=$?
    if [ $status -ne 0 ]; then
        fail "$mode: exit status $status through the library $(grep -h APPLICATION "$work/$mode.err")"
    elif ! diff -q "$work/$mode.plain" "$work/$mode.out" >/dev/null; then
        fail "$mode: the program's output differs through the library"
    elif grep -q "VertexAttribPointer data" "$work/$mode.err"; then
        fail "$mode: memory the driver does not read was reported: $(grep -m1 VertexAttribPointer "$work/$mode.err")"
    elif exact "$mode"; then
        ok "$mode: reads of memory the driver never reads neither fault nor report, and the program's own handler never runs"
    fi
done

# ---- Reading a FIFO fails at once instead of waiting for a writer ----------------------------
mkfifo "$work/fifo.kalvoren"
for command in info dump repair; do
    timeout 10 "$kalvoren" $command "$work/fifo.kalvoren" >"$work/fifo.out" 2>&1
    status=$?
    if [ $status -ne 2 ] || ! grep -q "is not a file" "$work/fifo.out"; then
        fail "kalvoren $command on a FIFO: exit status $status ($(head -c 200 "$work/fifo.out"))"
    else
        ok "kalvoren $command on a FIFO says it is not a file"
    fi
done

echo "$passed passed, $failures failed"
[ $failures -eq 0 ]
