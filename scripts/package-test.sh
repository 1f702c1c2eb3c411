#!/usr/bin/env bash
# What a user of the install or of the .deb gets, checked from the outside:
#
#   scripts/package-test.sh BUILD_DIR          install BUILD_DIR into a staging prefix and
#                                               check it: the files and the SONAME, every
#                                               public header on its own, twhost finding the
#                                               installed plug-in by itself, and a host
#                                               program of one's own (tests/package/consumer)
#                                               built against the prefix alone, once with
#                                               find_package(TwHost) and once with
#                                               pkg-config, that must see the right events
#   scripts/package-test.sh BUILD_DIR --deb    build a /usr tree beside it, make the .deb
#                                               with cpack and check its metadata, its
#                                               contents, lintian's errors, that apt can
#                                               install it, and that its twhost runs
#
# Work goes to BUILD_DIR/package/. Any failure ends the run with a message and exit 1.
set -euo pipefail
SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:?usage: package-test.sh BUILD_DIR [--deb]}" && pwd)
MODE=${2:-install}
WORK=$BUILD/package
mkdir -p "$WORK"

fail() { echo "package-test: FAIL: $*" >&2; exit 1; }
step() { echo "== $*"; }
# Runs a command whose output is kept in a log; on failure the log is shown.
run_logged() {
  local log=$1; shift
  "$@" > "$log" 2>&1 || { cat "$log" >&2; fail "'$*' failed (log: $log)"; }
}
# The host library finds the installed plug-in by itself; a TWHOST_PLUGIN from the caller
# would hide that.
unset TWHOST_PLUGIN

if [ "$MODE" = install ]; then
  STAGE=$WORK/stage
  rm -rf "$STAGE" "$WORK/consumer-cmake" "$WORK/consumer-pkgconfig"
  step "install into $STAGE"
  run_logged "$WORK/install.log" cmake --install "$BUILD" --prefix "$STAGE"
  LIBDIR=$(sed -n 's/^libdir=\${prefix}\///p' "$(find "$STAGE" -name twhost.pc | head -1)")
  [ -n "$LIBDIR" ] || fail "no twhost.pc in $STAGE"
  for f in bin/twhost "$LIBDIR/libtwhost.so.1.0.0" "$LIBDIR/twhost/plugins/libtwdevplugin.so" \
           include/tw/handler.h include/tw/handlerutils.h include/tw/workers.h \
           include/twhost/plugin.h include/twhost/version.h share/man/man1/twhost.1.gz \
           "$LIBDIR/cmake/TwHost/TwHostConfig.cmake" "$LIBDIR/cmake/TwHost/TwHostConfigVersion.cmake" \
           "$LIBDIR/pkgconfig/twhost.pc"; do
    [ -f "$STAGE/$f" ] || fail "the install has no $f"
  done
  [ "$(readlink "$STAGE/$LIBDIR/libtwhost.so.1")" = libtwhost.so.1.0.0 ] || fail "libtwhost.so.1 is not a link to libtwhost.so.1.0.0"
  [ "$(readlink "$STAGE/$LIBDIR/libtwhost.so")" = libtwhost.so.1 ] || fail "libtwhost.so is not a link to libtwhost.so.1"
  readelf -d "$STAGE/$LIBDIR/libtwhost.so.1.0.0" | grep -q 'Library soname: \[libtwhost.so.1\]' ||
    fail "libtwhost.so.1.0.0 has no SONAME libtwhost.so.1"
  zcat "$STAGE/share/man/man1/twhost.1.gz" | grep -q '^\.TH TWHOST "1"' || fail "the man page has no title"
  zcat "$STAGE/share/man/man1/twhost.1.gz" | grep -q 'TWHOST_PLUGIN' || fail "the man page does not tell where the plug-in is looked for"

  step "public headers: nothing from plugin/, each one compiles on its own"
  if grep -rn '#include "\(interface\|camera\|actionrule\)/' "$STAGE/include"; then
    fail "an installed header includes a private header of the plug-in"
  fi
  export PKG_CONFIG_PATH=$STAGE/$LIBDIR/pkgconfig
  CFLAGS_PC=$(pkg-config --cflags twhost) || fail "pkg-config does not know twhost"
  for h in $(cd "$STAGE/include" && find tw twhost -name '*.h' | sort); do
    echo "#include \"$h\"" | g++ -std=c++17 -fsyntax-only -Wall -Wextra $CFLAGS_PC -x c++ - ||
      fail "the installed header $h does not compile on its own"
  done

  step "installed twhost finds the installed plug-in"
  "$STAGE/bin/twhost" --help > "$WORK/help.txt" 2>&1 || true
  for want in "--plugin" "TWHOST_PLUGIN" "next to the twhost binary" "twhost/plugins"; do
    grep -q -- "$want" "$WORK/help.txt" || fail "twhost --help does not mention '$want'"
  done
  (cd "$WORK" && "$STAGE/bin/twhost" detect > "$WORK/detect.txt" 2> "$WORK/detect.err") ||
    { cat "$WORK/detect.err" >&2; fail "installed twhost detect failed"; }
  grep -q '^Motion in 2 intervals' "$WORK/detect.txt" || { cat "$WORK/detect.txt"; fail "installed twhost detect found no motion"; }

  # Nothing of the source tree may reach the consumer's compile lines.
  check_compile_lines() {
    if grep -e "$SRC/host" -e "$SRC/plugin" -e "$BUILD/lib" -e "$BUILD/host" -e "$BUILD/bin" "$1"; then
      fail "the consumer's build reached into the source or build tree ($1)"
    fi
  }

  step "a host program of one's own, with find_package(TwHost)"
  run_logged "$WORK/consumer-cmake.log" cmake -S "$SRC/tests/package/consumer" -B "$WORK/consumer-cmake" \
    -DCMAKE_PREFIX_PATH="$STAGE" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DCMAKE_BUILD_TYPE=Release
  run_logged "$WORK/consumer-cmake-build.log" cmake --build "$WORK/consumer-cmake" --verbose
  check_compile_lines "$WORK/consumer-cmake/compile_commands.json"
  "$WORK/consumer-cmake/twhost_consumer" > "$WORK/consumer-cmake.out" 2> "$WORK/consumer-cmake.err" ||
    { cat "$WORK/consumer-cmake.out" "$WORK/consumer-cmake.err" >&2; fail "the find_package consumer saw wrong events"; }
  tail -1 "$WORK/consumer-cmake.out"
  grep -q "plug-in $STAGE/$LIBDIR/twhost/plugins/libtwdevplugin.so" "$WORK/consumer-cmake.out" ||
    fail "the find_package consumer did not load the installed plug-in"

  step "a host program of one's own, with pkg-config"
  mkdir -p "$WORK/consumer-pkgconfig"
  PLUGIN_PC=$(pkg-config --variable=plugin twhost)
  [ -f "$PLUGIN_PC" ] || fail "pkg-config's plugin variable names no file: $PLUGIN_PC"
  CMD=(g++ -std=c++17 -O1 -o "$WORK/consumer-pkgconfig/twhost_consumer" "$SRC/tests/package/consumer/consumer.cpp"
       $CFLAGS_PC "-DTW_CONSUMER_PLUGIN=\"$PLUGIN_PC\""
       $(pkg-config --libs twhost) "-Wl,-rpath,$(pkg-config --variable=libdir twhost)")
  echo "${CMD[*]}" > "$WORK/consumer-pkgconfig/command.txt"
  check_compile_lines "$WORK/consumer-pkgconfig/command.txt"
  run_logged "$WORK/consumer-pkgconfig.log" "${CMD[@]}"
  "$WORK/consumer-pkgconfig/twhost_consumer" > "$WORK/consumer-pkgconfig.out" 2> "$WORK/consumer-pkgconfig.err" ||
    { cat "$WORK/consumer-pkgconfig.out" "$WORK/consumer-pkgconfig.err" >&2; fail "the pkg-config consumer saw wrong events"; }
  tail -1 "$WORK/consumer-pkgconfig.out"
  echo "package-test: install and consumers OK"
  exit 0
fi

[ "$MODE" = --deb ] || fail "unknown option '$MODE' (known: --deb)"
DEB_BUILD=$WORK/deb-build
step "a /usr build for the .deb in $DEB_BUILD"
LAUNCHER=()
command -v ccache > /dev/null && LAUNCHER=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
run_logged "$WORK/deb-configure.log" cmake -S "$SRC" -B "$DEB_BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DTW_BUILD_TESTS=OFF -DTW_BUILD_BENCH=OFF "${LAUNCHER[@]}"
run_logged "$WORK/deb-build.log" cmake --build "$DEB_BUILD" -j2 --target twhost_tool twdevplugin twhost_man
rm -f "$DEB_BUILD"/twhost_*.deb
run_logged "$WORK/cpack.log" bash -c "cd '$DEB_BUILD' && cpack -G DEB"
DEB=$(ls "$DEB_BUILD"/twhost_*.deb 2>/dev/null | head -1)
[ -n "$DEB" ] || fail "cpack made no twhost_*.deb"
echo "$DEB"

step "metadata"
dpkg-deb --info "$DEB" | tee "$WORK/deb-info.txt"
grep -q '^ Package: twhost$' "$WORK/deb-info.txt" || fail "the package is not called twhost"
grep -q '^ Version: 1\.0\.0' "$WORK/deb-info.txt" || fail "the package's version is not 1.0.0"
grep -q "^ Architecture: $(dpkg --print-architecture)$" "$WORK/deb-info.txt" || fail "wrong architecture"
DEPENDS=$(sed -n 's/^ Depends: //p' "$WORK/deb-info.txt")
# Computed by dpkg-shlibdeps from what the binaries link.
for lib in libc6 libstdc++6 libjsoncpp libavformat libavcodec libswscale libjpeg62-turbo libmodbus libcurl4; do
  echo "$DEPENDS" | grep -q "$lib" || fail "the package does not depend on $lib (Depends: $DEPENDS)"
done

step "contents"
dpkg-deb --contents "$DEB" | tee "$WORK/deb-contents.txt"
MA=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for f in ./usr/bin/twhost ./usr/lib/$MA/libtwhost.so.1.0.0 ./usr/lib/$MA/libtwhost.so.1 \
         ./usr/lib/$MA/twhost/plugins/libtwdevplugin.so ./usr/include/twhost/plugin.h \
         ./usr/include/tw/handlerutils.h ./usr/share/man/man1/twhost.1.gz \
         ./usr/lib/$MA/cmake/TwHost/TwHostConfig.cmake ./usr/lib/$MA/pkgconfig/twhost.pc; do
  grep -q " $f\( \|$\)" "$WORK/deb-contents.txt" || fail "the package has no $f"
done
if grep -q -e ' \./usr/local' -e ' \./work' "$WORK/deb-contents.txt"; then fail "the package installs outside /usr"; fi

step "lintian (errors fail the run)"
lintian --tag-display-limit 0 "$DEB" > "$WORK/lintian.txt" 2>&1 || true
cat "$WORK/lintian.txt"
if grep -q '^E: ' "$WORK/lintian.txt"; then fail "lintian reports errors"; fi

step "apt can install it (simulated)"
run_logged "$WORK/apt-simulate.log" apt-get install -s -q "$DEB"
grep -q '^Inst twhost ' "$WORK/apt-simulate.log" || { cat "$WORK/apt-simulate.log"; fail "apt would not install twhost"; }

step "the package's twhost runs the built-in sample"
X=$WORK/deb-root
rm -rf "$X" && dpkg-deb -x "$DEB" "$X"
(cd "$WORK" && LD_LIBRARY_PATH=$X/usr/lib/$MA "$X/usr/bin/twhost" detect > "$WORK/deb-detect.txt" 2> "$WORK/deb-detect.err") ||
  { cat "$WORK/deb-detect.err" >&2; fail "the package's twhost detect failed"; }
grep -q '^Motion in 2 intervals' "$WORK/deb-detect.txt" || { cat "$WORK/deb-detect.txt"; fail "the package's twhost found no motion"; }
echo "package-test: .deb OK"
