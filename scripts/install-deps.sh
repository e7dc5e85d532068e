#!/usr/bin/env bash
# Installs, as root, the Debian 12 packages this project builds with. Does
# nothing when they are all present already. With "bench", also those of the
# benchmarks' peers (bench/PeersBench.cpp).
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libfmt-dev          # every trace and message text
  nlohmann-json3-dev  # the feature-toggle files (Cairn/Toggle.h)
  libuv1-dev          # the event loop under Loop::UvEventLoop (docs/EVENTLOOP.md)
  libcli11-dev        # the command line of tools/tessel
  libgtest-dev libgmock-dev
  libbenchmark-dev
  clang-14 libclang-rt-14-dev  # the fuzz targets (./run fuzz): clang and its libFuzzer runtime
)
if [[ ${1:-} == bench ]]; then
  packages+=(
    libabsl-dev    # absl::flat_hash_map, the in-process baseline
    libboost-dev   # Boost.Interprocess, a shared-memory map under a lock
    liblmdb-dev    # LMDB, a memory-mapped store with read transactions
  )
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} > 0)); then
  if [[ $(id -u) -ne 0 ]]; then
    echo "install-deps: missing packages: ${missing[*]}; run as root to install them" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
