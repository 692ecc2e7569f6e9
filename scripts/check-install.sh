#!/usr/bin/env bash
# Checks the library as other projects get it. Builds the packages (scripts/package.sh), installs
# the build into a temporary prefix, builds examples/hello-host against it through find_package
# and through pkg-config, runs both against the installed veskan-serve, and starts the installed
# veskan-classroom on its installed pages and sample quiz. Then unpacks the
# .deb packages into an empty folder and builds hello-host against that tree, checks each
# package's dependencies and files, and runs lintian on them when it is installed.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build-package}"

scripts/package.sh
work=$(mktemp -d)
serve_pid=""
classroom_pid=""
cleanup() {
  [ -n "$serve_pid" ] && kill "$serve_pid" 2>/dev/null || true
  [ -n "$classroom_pid" ] && kill "$classroom_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "check-install: $*" >&2
  exit 1
}

# Waits up to 10 s for the sed expression $2 to print something from the log $1, and prints it.
wait_for_line() {
  local found=""
  for _ in $(seq 100); do
    found=$(sed -n "$2" "$1" | head -1)
    [ -n "$found" ] && break
    sleep 0.1
  done
  echo "$found"
}

# Builds hello-host against the tree under $1 both ways, into $2/cmake and $2/pc.
build_example() {
  local prefix=$1 out=$2 pcdir
  cmake -S examples/hello-host -B "$out/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$out/cmake" >/dev/null
  pcdir=$(dirname "$(find "$prefix" -name veskan.pc | head -1)")
  mkdir -p "$out/pc"
  PKG_CONFIG_PATH="$pcdir" make -s -C examples/hello-host OUT="$out/pc" >/dev/null
}

echo "== install into a temporary prefix"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libveskan.so.0' | head -1)")
[ -f "$libdir/libveskan.so.0" ] || fail "libveskan.so.0 not installed"
[ "$(readlink "$libdir/libveskan.so")" = "libveskan.so.0" ] || fail "libveskan.so is no link to the soname"
soname=$(objdump -p "$libdir/libveskan.so.0" | awk '/SONAME/ {print $2}')
[ "$soname" = "libveskan.so.0" ] || fail "soname is '$soname'"
build_example "$prefix" "$work/example"

echo "== hello-host against the installed veskan-serve"
export LD_LIBRARY_PATH="$libdir"  # built for /usr: the programs carry no search path
"$prefix/bin/veskan-serve" --port 0 --direct >"$work/serve.log" 2>&1 &
serve_pid=$!
base=$(wait_for_line "$work/serve.log" 's|^listening on \(http://[^ ]*[0-9]\)/*.*$|\1|p')
[ -n "$base" ] || fail "veskan-serve did not start: $(cat "$work/serve.log")"
for way in cmake pc; do
  output=$("$work/example/$way/hello-host" "$base") || fail "hello-host ($way) failed: $output"
  echo "$output"
  grep -q "^$base/hello: 200 Hello, world!$" <<<"$output" || fail "no greeting from veskan-serve ($way)"
  grep -q "/hello: 200 Hello from hello-host!$" <<<"$output" || fail "no greeting from itself ($way)"
done
kill "$serve_pid"
wait "$serve_pid" 2>/dev/null || true
serve_pid=""

echo "== the installed veskan-classroom on its installed pages and sample quiz"
VESKAN_USER_REGISTRY="$work/user.db" VESKAN_MACHINE_REGISTRY="$work/machine.db" \
  VESKAN_NAMESPACE="check-install-$$" "$prefix/bin/veskan-classroom" --port 0 \
  --listen 127.0.0.1 --password check --results "$work/results" >"$work/classroom.log" 2>&1 &
classroom_pid=$!
students=$(wait_for_line "$work/classroom.log" 's|^students: \(http://[^ ]*\)$|\1|p')
[ -n "$students" ] || fail "veskan-classroom did not start: $(cat "$work/classroom.log")"
grep -q "^quiz: Europe warm-up (3 questions)$" "$work/classroom.log" || fail "no sample quiz"
curl -sf "$students" | grep -q "Join the class" || fail "the installed classroom serves no page"
kill "$classroom_pid"
wait "$classroom_pid" 2>/dev/null || true
classroom_pid=""
unset LD_LIBRARY_PATH

echo "== the Debian packages"
root="$work/root"
mkdir -p "$root"
for deb in "$build"/*.deb; do
  echo "$(basename "$deb"): $(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version)," \
    "depends on: $(dpkg-deb -f "$deb" Depends)"
  dpkg-deb -x "$deb" "$root"
done
runtime=$(ls "$build"/libveskan0_*.deb)
dev=$(ls "$build"/libveskan-dev_*.deb)
tools=$(ls "$build"/veskan-tools_*.deb)
dpkg-deb -f "$runtime" Depends | grep -q "libicu" || fail "libveskan0 does not depend on ICU"
dpkg-deb -f "$dev" Depends | grep -q "libveskan0 (= " || fail "libveskan-dev does not depend on libveskan0"
dpkg-deb -f "$tools" Depends | grep -q "libveskan0 (= " || fail "veskan-tools does not depend on libveskan0"
# Whether package $1 holds a file whose path matches $2.
holds() {
  local files
  files=$(dpkg-deb -c "$1")
  grep -q "$2" <<<"$files"
}
holds "$runtime" "/usr/lib/.*/libveskan.so.0.1.0$" || fail "libveskan0 lacks the library"
holds "$dev" "/usr/include/veskan/Server.h$" || fail "libveskan-dev lacks the headers"
holds "$dev" "/VeskanConfig.cmake$" || fail "libveskan-dev lacks the CMake package"
holds "$dev" "/pkgconfig/veskan.pc$" || fail "libveskan-dev lacks veskan.pc"
holds "$tools" "/usr/bin/veskan-serve$" || fail "veskan-tools lacks veskan-serve"
holds "$tools" "/usr/share/veskan/classroom/pages/student.html$" ||
  fail "veskan-tools lacks the classroom's pages"
if objdump -p "$root/usr/bin/veskan-serve" | grep -q "RUNPATH\|RPATH"; then
  fail "packaged programs carry a library search path"
fi
build_example "$root/usr" "$work/unpacked"
LD_LIBRARY_PATH=$(dirname "$(find "$root" -name 'libveskan.so.0' | head -1)") \
  "$work/unpacked/cmake/hello-host" >/dev/null || fail "hello-host built on the unpacked packages failed"
echo "hello-host built and ran on the unpacked packages"
if command -v lintian >/dev/null 2>&1; then
  echo "== lintian"
  lintian --fail-on error "$build"/*.deb
fi
echo "check-install: all good"
