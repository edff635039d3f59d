#!/usr/bin/env bash
# Installs VelvoxKit into temporary prefixes, in the form of the main build and
# in the other form (static or shared), and builds and runs consumers against
# each, with CMake's find_package and with pkg-config: one of the framework
# alone, one that tests with the sandbox (the package's component Sandbox).
# The prefixes are moved after installing, to show that nothing depends on
# where they were made; a static library's recorded resource folder is then
# gone, and a program that does not name the folder is told how to.
#
#   packaging-test.sh SOURCE_DIR BUILD_DIR SHARED(ON|OFF)
set -euo pipefail
source_dir=$1
build_dir=$2
main_shared=$3
consumer_src=$source_dir/Tests/Packaging/consumer
sandbox_consumer_src=$source_dir/Tests/Packaging/sandbox-consumer
work=$build_dir/packaging
rm -rf "$work/prefix" "$work/moved" "$work/consumers" "$work/home"
mkdir -p "$work/prefix" "$work/moved" "$work/consumers"

fail() { echo "FAIL: $*" >&2; exit 1; }

# The programs and consumers run as a user would, but in folders of the test's
# own: nothing reaches the person's own data, cache or configuration.
mkdir -p "$work/home"
export HOME=$work/home XDG_DATA_HOME=$work/home/data XDG_CACHE_HOME=$work/home/cache XDG_CONFIG_HOME=$work/home/config XDG_STATE_HOME=$work/home/state

if [ "$main_shared" = ON ]; then other=OFF; else other=ON; fi
# The other form is built beside the main build, libraries and programs only
# (not the desktop client, whose package is the main build's to check);
# it is kept between runs, so a second run only rebuilds what changed.
cmake -S "$source_dir" -B "$work/build-$other" -G Ninja -DBUILD_SHARED_LIBS=$other \
  -DVELVOX_BUILD_TESTS=OFF -DVELVOX_BUILD_DESKTOP=OFF -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/build-$other" --parallel 2 >/dev/null

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
  [ -f "$prefix/include/velvox/TemplateEngine/TemplateEngine.h" ] || fail "$form: no template engine header"
  [ -f "$prefix/share/velvox/Resources/sandbox/catalogue.json" ] || fail "$form: no resources"

  if [ "$form" = shared ]; then
    for lib in platform jsoncodec zukit api templates kit sandbox; do
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
  if [ -x "$prefix/bin/velvox-desktop" ]; then
    (cd / && QT_QPA_PLATFORM=offscreen "$prefix/bin/velvox-desktop" --help) | grep -q -- '--screenshot' || fail "$form: velvox-desktop --help"
  fi

  # The CMake package: the sandbox in an export set of its own, loaded as a component.
  local package
  package=$(dirname "$(find "$prefix" -name VelvoxKitConfig.cmake | head -1)")
  [ -f "$package/VelvoxKitSandboxTargets.cmake" ] || fail "$form: no VelvoxKitSandboxTargets.cmake"
  ! grep -q 'velvox::Sandbox' "$package/VelvoxKitTargets.cmake" || fail "$form: VelvoxKitTargets.cmake holds the sandbox"

  # CMake consumers, as docs/using.md says: find_package(VelvoxKit 0.1 REQUIRED),
  # and with COMPONENTS Sandbox.
  local consumer=$work/consumers/cmake-$form sandbox_consumer=$work/consumers/cmake-sandbox-$form
  cmake -S "$consumer_src" -B "$consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null ||
    fail "$form: the CMake consumer does not configure"
  cmake --build "$consumer" >/dev/null || fail "$form: the CMake consumer does not build"
  "$consumer/consumer" | grep -q 'hello consumer' || fail "$form: the CMake consumer did not render its template"
  cmake -S "$sandbox_consumer_src" -B "$sandbox_consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null ||
    fail "$form: the CMake sandbox consumer does not configure"
  cmake --build "$sandbox_consumer" >/dev/null || fail "$form: the CMake sandbox consumer does not build"
  local program=$sandbox_consumer/sandbox-consumer
  (cd / && "$program") | grep -q 'me is ' || fail "$form: the CMake sandbox consumer did not fetch /me"

  # The same program, outside the prefix, not naming the resource folder.
  local output
  if [ "$form" = shared ]; then
    (cd / && "$program" --find-resources) | grep -q 'me is ' ||
      fail "$form: the shared library does not find the resources relative to itself"
  else
    # Moved: the recorded folder is gone; the error names both remedies.
    output=$(cd / && "$program" --find-resources 2>&1) && fail "$form: found resources the moved prefix does not have: $output"
    for part in "sandbox: cannot read the catalogue" "setResourcePath(" '$VELVOX_RESOURCES'; do
      grep -qF -- "$part" <<<"$output" || fail "$form: the missing catalogue's error does not say \"$part\": $output"
    done
    (cd / && VELVOX_RESOURCES=$prefix/share/velvox/Resources "$program" --find-resources) | grep -q 'me is ' ||
      fail "$form: \$VELVOX_RESOURCES does not name the resources"
    # Where it was installed, the library finds the folder it recorded.
    mv "$prefix" "$made"
    output=$(cd / && "$program" --find-resources 2>&1) || true
    mv "$made" "$prefix"
    grep -q 'me is ' <<<"$output" || fail "$form: the static library did not find the resources it was installed with: $output"
  fi

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
  pc_flags="$pc_flags -DVELVOX_RESOURCE_DIR=\"$resources\""
  local rpath
  rpath=$([ "$form" = shared ] && echo "-Wl,-rpath,$libdir" || true)
  g++ -std=c++20 -o "$work/consumers/pkgconfig-$form" "$consumer_src/consumer.cpp" \
    $(pkg-config --cflags --libs $static_flag velvoxkit) -lcurl $rpath || fail "$form: the pkg-config consumer does not build"
  "$work/consumers/pkgconfig-$form" | grep -q 'hello consumer' || fail "$form: the pkg-config consumer did not render its template"
  g++ -std=c++20 -o "$work/consumers/pkgconfig-sandbox-$form" "$sandbox_consumer_src/sandbox-consumer.cpp" $pc_flags -lcurl $rpath ||
    fail "$form: the pkg-config sandbox consumer does not build"
  "$work/consumers/pkgconfig-sandbox-$form" | grep -q 'me is ' || fail "$form: the pkg-config sandbox consumer did not fetch /me"
  echo "$form: installed, moved, programs start, CMake and pkg-config consumers build and run, the resources are found or named"
}

if [ "$main_shared" = ON ]; then
  check_prefix shared "$build_dir"
  check_prefix static "$work/build-OFF"
else
  check_prefix static "$build_dir"
  check_prefix shared "$work/build-ON"
fi
echo "packaging: all checks passed"
