#!/usr/bin/env bash
# Installs VelvoxKit into temporary prefixes, in the form of the main build and
# in the other form (static or shared), and builds and runs consumers against
# each: one with CMake's find_package, one with pkg-config. The prefixes are
# moved after installing, to show that nothing depends on where they were made.
#
#   packaging-test.sh SOURCE_DIR BUILD_DIR SHARED(ON|OFF)
set -euo pipefail
source_dir=$1
build_dir=$2
main_shared=$3
consumer_src=$source_dir/Tests/Packaging/consumer
work=$build_dir/packaging
rm -rf "$work/prefix" "$work/moved" "$work/consumers"
mkdir -p "$work/prefix" "$work/moved" "$work/consumers"

fail() { echo "FAIL: $*" >&2; exit 1; }

if [ "$main_shared" = ON ]; then other=OFF; else other=ON; fi
# The other form is built beside the main build, libraries and programs only;
# it is kept between runs, so a second run only rebuilds what changed.
cmake -S "$source_dir" -B "$work/build-$other" -G Ninja -DBUILD_SHARED_LIBS=$other \
  -DVELVOX_BUILD_TESTS=OFF -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/build-$other" >/dev/null

check_prefix() {
  local form=$1 build=$2
  local made=$work/prefix/$form prefix=$work/moved/$form
  cmake --install "$build" --prefix "$made" >/dev/null
  mv "$made" "$prefix"
  local libdir
  libdir=$(dirname "$(find "$prefix" -name 'libvelvox-platform.*' | head -1)")
  [ -f "$prefix/share/doc/velvoxkit/LICENSE" ] || fail "$form: no LICENSE installed"
  [ -f "$prefix/include/velvox/VelvoxKit/VelvoxVersion.h" ] || fail "$form: no version header"
  [ -f "$prefix/include/velvox/Sandbox/SandboxService.h" ] || fail "$form: no sandbox header"
  [ -f "$prefix/share/velvox/Resources/sandbox/catalogue.json" ] || fail "$form: no resources"

  if [ "$form" = shared ]; then
    for lib in platform jsoncodec zukit api kit sandbox; do
      local file=$libdir/libvelvox-$lib.so.0
      [ -e "$file" ] || fail "libvelvox-$lib.so.0 not installed"
      readelf -d "$file" | grep -q "SONAME.*\[libvelvox-$lib.so.0\]" || fail "libvelvox-$lib: no SOVERSION in its SONAME"
    done
    readelf -d "$prefix/bin/velvox" | grep -q 'R.*PATH.*\$ORIGIN' || fail "velvox has no relative RPATH"
  else
    [ -f "$libdir/libvelvox-platform.a" ] || fail "libvelvox-platform.a not installed"
  fi

  # Every program of the package starts from the moved tree and finds its resources there.
  (cd / && "$prefix/bin/velvox" --version) | grep -q '^velvox ' || fail "$form: velvox --version"
  (cd / && "$prefix/bin/velvox" info) | grep -qF "$prefix/share/velvox/Resources" ||
    fail "$form: velvox info does not name the prefix's resources: $("$prefix/bin/velvox" info)"
  (cd / && env -u VELVOX_TOKEN "$prefix/bin/velvox" api GET /me) | grep -q '"username"' || fail "$form: velvox api GET /me"
  (cd / && "$prefix/bin/velvox-sandbox" --help) >/dev/null || fail "$form: velvox-sandbox --help"

  # A CMake consumer.
  local consumer=$work/consumers/cmake-$form
  cmake -S "$consumer_src" -B "$consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null ||
    fail "$form: the CMake consumer does not configure"
  cmake --build "$consumer" >/dev/null || fail "$form: the CMake consumer does not build"
  "$consumer/consumer" | tee "$consumer/output.txt" | grep -q 'me is ' || fail "$form: the CMake consumer did not fetch /me"

  # A pkg-config consumer, as docs/using.md says: the framework is velvoxkit, the
  # sandbox velvox-sandbox (which requires it); the moved files need no override.
  local pc_flags static_flag
  static_flag=$([ "$form" = static ] && echo --static || true)
  export PKG_CONFIG_PATH=$libdir/pkgconfig
  [ -f "$(pkg-config --variable=includedir velvoxkit)/velvox/VelvoxKit/VXResourceController.h" ] ||
    fail "$form: velvoxkit's includedir does not hold the headers: $(pkg-config --variable=includedir velvoxkit)"
  ! pkg-config --libs $static_flag velvoxkit | grep -q -- '-lvelvox-sandbox\|httplib' ||
    fail "$form: plain velvoxkit consumers would link the sandbox: $(pkg-config --libs $static_flag velvoxkit)"
  pkg-config --libs velvoxkit | grep -q -- '-lvelvox-templates' || fail "$form: velvoxkit does not link the template engine"
  pc_flags=$(pkg-config --cflags --libs $static_flag velvox-sandbox) || fail "$form: pkg-config does not know velvox-sandbox"
  local resources
  resources=$(pkg-config --variable=resourcedir velvox-sandbox)
  [ -f "$resources/sandbox/catalogue.json" ] || fail "$form: the sandbox's resourcedir holds no catalogue: $resources"
  pc_flags="$pc_flags -DRESOURCE_DIR=\"$resources\""
  g++ -std=c++20 -o "$work/consumers/pkgconfig-$form" "$consumer_src/consumer.cpp" $pc_flags -lcurl \
    $([ "$form" = shared ] && echo "-Wl,-rpath,$libdir") || fail "$form: the pkg-config consumer does not build"
  "$work/consumers/pkgconfig-$form" | grep -q 'me is ' || fail "$form: the pkg-config consumer did not fetch /me"
  echo "$form: installed, moved, programs start, CMake and pkg-config consumers fetch /me"
}

if [ "$main_shared" = ON ]; then
  check_prefix shared "$build_dir"
  check_prefix static "$work/build-OFF"
else
  check_prefix static "$build_dir"
  check_prefix shared "$work/build-ON"
fi
echo "packaging: all checks passed"
