#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, if
# any is missing. The lists are scripts/packages/*.txt, one package a line
# ('#' starts a comment). Quiet and quick when everything is there.
set -euo pipefail
cd "$(dirname "$0")/packages"

mapfile -t pkgs < <(sed -e 's/#.*//' -e 's/[[:space:]]//g' ./*.txt | grep -v '^$' | sort -u)

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
