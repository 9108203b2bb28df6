#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, if any is
# missing. Quiet and quick when everything is there.
set -euo pipefail

pkgs=(cmake ninja-build g++ make libgtest-dev libgmock-dev libbenchmark-dev
      clang-14 libclang-rt-14-dev tshark)

missing=()
for p in "${pkgs[@]}"; do
	dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
SUDO=
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
