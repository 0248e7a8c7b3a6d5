#!/bin/bash
# Installs the Debian packages the build and the tests need, where missing.
set -euo pipefail
PACKAGES=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libssl-dev openssl util-linux passwd mount
  pkg-config libtasn1-6-dev
  faketime iproute2  # the end-to-end tests and the soak (tools/soak.sh): a clock moved or sped up for the real agent, a rate limit on a namespace's link
  rsync  # the file transfer benchmark measures rsync in daemon mode beside the agents
  dpkg-dev file systemd)  # for the Debian packages: their dependencies (dpkg-shlibdeps, file) and unit check (systemd-analyze)
missing=()
for p in "${PACKAGES[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages: ${missing[*]} (run as root to install them)" >&2
    exit 1
  fi
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
