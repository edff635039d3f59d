#!/usr/bin/env bash
# Installs the Debian packages the build needs (only those missing), then
# configures and builds VelvoxKit with Ninja.
#
#   scripts/setup.sh [--build-dir DIR] [--sanitize] [--benchmarks] [--fuzzers] [--browser]
#   (--browser: headless Chromium, which the tests of the HTML views load pages in)
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=build
cmake_args=()
packages=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev liburiparser-dev libcli11-dev
  libcurl4-openssl-dev libcpp-httplib-dev libicu-dev libfast-float-dev locales zlib1g-dev
  qt6-base-dev libgl-dev)
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir=$2; shift 2 ;;
    --sanitize) cmake_args+=(-DVELVOX_SANITIZE=ON); shift ;;
    --browser) packages+=(chromium fonts-dejavu-core); shift ;;
    --benchmarks)
      cmake_args+=(-DVELVOX_BUILD_BENCHMARKS=ON -DCMAKE_BUILD_TYPE=Release -DVELVOX_BUILD_TESTS=OFF)
      packages+=(libbenchmark-dev rapidjson-dev libsimdjson-dev nlohmann-json3-dev libcjson-dev libyajl-dev libkainjow-mustache-dev)
      shift ;;
    --fuzzers)
      cmake_args+=(-DVELVOX_BUILD_FUZZERS=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELVOX_BUILD_TESTS=OFF)
      packages+=(clang libclang-rt-14-dev)
      shift ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake -S . -B "$build_dir" -G Ninja "${cmake_args[@]}" >/dev/null
cmake --build "$build_dir"
