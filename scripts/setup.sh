#!/usr/bin/env bash
# Installs everything klNetBase needs to build, test, fuzz (clang with libFuzzer) and benchmark on
# Debian 12.
# Idempotent: prints nothing and changes nothing when every package is already there.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config git
  libtbb-dev qtbase5-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev libzmq3-dev libpng-dev systemd
  liblz4-dev libzstd-dev libsodium-dev libssl-dev
  libcli11-dev libcurl4-openssl-dev help2man libsystemd-dev
  devscripts lintian
  clang-format
  iproute2 iperf3 dpkg-dev
  slurm-wlm slurm-client munge
  clang libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "setup: installing ${missing[*]}"
sudo=()
if [[ $(id -u) -ne 0 ]]; then
  command -v sudo >/dev/null || { echo "setup: run as root or install sudo" >&2; exit 1; }
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
