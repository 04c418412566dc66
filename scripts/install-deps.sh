#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need, and only those that
# are missing. Safe to run any number of times; uses sudo when not root.
set -euo pipefail

packages=(
  # toolchain
  g++ cmake ninja-build make pkg-config
  # library dependencies
  liblapack-dev libblas-dev
  # image files for the tool, the tests and the benchmarks (never needed by a client)
  libpng-dev libjpeg62-turbo-dev libtiff-dev
  # tests, tool and benchmarks (never needed by a client of the library)
  libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
  # independent oracles and benchmark peers
  libeigen3-dev libglpk-dev libgsl-dev libcminpack-dev libboost-graph-dev libopencv-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# Refresh the package lists when they are missing or older than a day, or when a package is unknown.
lists=/var/lib/apt/lists
if [ -z "$(find "$lists" -maxdepth 1 -name '*Packages*' -mmin -1440 2>/dev/null | head -n 1)" ] ||
   ! apt-cache show "${missing[@]}" >/dev/null 2>&1; then
  $sudo apt-get update -qq
fi
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
