#!/usr/bin/env bash
# The Debian package as a user gets it: made from the build with CPack, installed with apt-get, used
# from an empty folder by an ordinary user to record glmark2-es2 under Xvfb and read the trace, then
# removed without a file left behind. Installing it must not put the front libraries where the
# dynamic loader finds them for programs started without `kalvoren record`.
#
#   package_test.sh BUILD_DIR
#
# Exits 77 (skipped) where packages cannot be installed (not root and no sudo without a password),
# where the tools are missing, or where a kalvoren package is installed already (it is not ours to
# replace).
set -u
build=$(cd "${1:?usage: package_test.sh BUILD_DIR}" && pwd)

skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
failures=0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    sudo -n true 2>/dev/null || skip "installing packages needs root or sudo without a password"
    as_root=(sudo -n)
fi
for tool in cpack dpkg-shlibdeps apt-get xvfb-run glmark2-es2; do
    command -v "$tool" >/dev/null || skip "$tool is not installed (scripts/bootstrap installs it)"
done
if [ "$(dpkg-query -W -f='${db:Status-Status}' kalvoren 2>/dev/null)" = installed ]; then
    skip "a kalvoren package is installed already"
fi

work=$(mktemp -d)
installed=0
cleanup() {
    [ $installed -eq 1 ] && "${as_root[@]}" apt-get -qq remove -y kalvoren >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
# apt reads the package as its own unprivileged user; the test user works in a folder of its own.
chmod 755 "$work"
apt_opts=(-q -y -o Dpkg::Use-Pty=0 -o DPkg::Lock::Timeout=300)

# ---- Making it: dependencies computed from what the files link --------------------------------
if ! cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/dist" >"$work/cpack.log" 2>&1; then
    cat "$work/cpack.log"
    echo "FAIL: cpack could not make the package"
    exit 1
fi
deb=$(ls "$work"/dist/kalvoren_*.deb 2>/dev/null | head -n1)
[ -n "$deb" ] || { echo "FAIL: no kalvoren_*.deb in $work/dist"; exit 1; }
echo "package: $(basename "$deb"), $(stat -c %s "$deb") bytes"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for lib in libc6 libstdc++6 libjsoncpp libpng16 zlib1g; do
    [[ "$depends" == *"$lib"* ]] || fail "Depends does not name $lib"
done
contents=$(dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|')
unexpected=$(grep -v -E -e '^/usr/bin/kalvoren$' -e '^/usr/lib/([^/]*/)?kalvoren/' \
    -e '^/usr/share/doc/kalvoren/' -e '^/usr/(bin/|lib/([^/]*/)?|share/|share/doc/)?$' <<<"$contents")
[ -z "$unexpected" ] || fail "files outside /usr/bin/kalvoren and the private folders: $unexpected"
grep -q -E '^/usr/lib/([^/]*/)?kalvoren/libEGL.so.1' <<<"$contents" || fail "no libEGL.so.1 in a kalvoren folder"

# ---- Installing it ------------------------------------------------------------------------------
cp "$deb" "$work/"
if ! (cd "$work" && "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${apt_opts[@]}" install \
    "./$(basename "$deb")") >"$work/install.log" 2>&1; then
    cat "$work/install.log"
    echo "FAIL: apt-get install could not install the package"
    exit 1
fi
installed=1
files=$(dpkg-query -L kalvoren)
if ldconfig -p | grep -q /kalvoren/; then
    fail "the dynamic loader's cache lists the front libraries: $(ldconfig -p | grep /kalvoren/)"
fi

# ---- Using it: an ordinary user, an empty folder, the command on PATH ---------------------------
user_dir="$work/user"
mkdir "$user_dir"
as_user=()
if [ "$(id -u)" -eq 0 ]; then
    chown nobody "$user_dir"
    as_user=(runuser -u nobody --)
fi
in_user_dir() {
    (cd "$user_dir" && "${as_user[@]}" env -i PATH=/usr/bin:/bin HOME="$user_dir" "$@")
}
in_user_dir kalvoren --version >"$work/version.txt" 2>&1
grep -q '^trace format [0-9]' "$work/version.txt" || fail "kalvoren --version: $(cat "$work/version.txt")"
in_user_dir xvfb-run -a kalvoren record --no-info -- glmark2-es2 -b build:duration=1 >"$work/record.log" 2>&1
status=$?
[ $status -eq 0 ] || fail "kalvoren record -- glmark2-es2 exited $status: $(tail -n 20 "$work/record.log")"
trace="$user_dir/glmark2-es2.kalvoren"
[ -s "$trace" ] || fail "no trace in $user_dir: $(ls -A "$user_dir")"
in_user_dir kalvoren info glmark2-es2.kalvoren >"$work/info.txt" 2>&1
status=$?
[ $status -eq 0 ] || fail "kalvoren info exited $status: $(cat "$work/info.txt")"
frames=$(sed -n 's/^Frames: *\([0-9]*\).*/\1/p' "$work/info.txt")
[ "${frames:-0}" -ge 1 ] || fail "the trace holds ${frames:-no} frames: $(cat "$work/info.txt")"
grep -q glDrawArrays "$work/info.txt" || fail "no glDrawArrays in the trace: $(cat "$work/info.txt")"
# Errors that say what to do next, with the documented exit statuses.
in_user_dir kalvoren info missing.kalvoren >"$work/missing.txt" 2>&1
status=$?
[ $status -eq 2 ] && grep -q 'no such file' "$work/missing.txt" ||
    fail "info on a missing file: exit $status, $(cat "$work/missing.txt")"
in_user_dir kalvoren record -- no-such-program >"$work/noprogram.txt" 2>&1
status=$?
[ $status -eq 127 ] && grep -q 'give its path' "$work/noprogram.txt" ||
    fail "record of a missing program: exit $status, $(cat "$work/noprogram.txt")"
echo "recorded glmark2-es2: $(stat -c %s "$trace") bytes, $frames frames"

# ---- Removing it: nothing left ------------------------------------------------------------------
if ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "${apt_opts[@]}" remove kalvoren \
    >"$work/remove.log" 2>&1; then
    cat "$work/remove.log"
    fail "apt-get remove kalvoren failed"
fi
installed=0
state=$(dpkg-query -W -f='${db:Status-Status}' kalvoren 2>/dev/null)
[ "${state:-not-installed}" = not-installed ] || fail "dpkg still has the package, as '$state'"
while read -r path; do
    case "$path" in
    /. | /usr | /usr/bin | /usr/lib | /usr/lib/*-linux-gnu | /usr/share | /usr/share/doc) continue ;;
    esac
    [ -e "$path" ] || [ -L "$path" ] && fail "left behind: $path"
done <<<"$files"

[ $failures -eq 0 ] || { echo "$failures failures"; exit 1; }
echo "OK"
