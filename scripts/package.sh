#!/usr/bin/env bash
# Builds the Debian package build/ksdeploy_<version>_amd64.deb (binary, man page, bash completion,
# translations when there are any) and prints its path. Dependencies are computed by
# dpkg-shlibdeps from what the binary links.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${KSDEPLOY_BUILD_DIR:-$root/build}"
"$root/scripts/build.sh" >&2
cd "$build"
rm -f ksdeploy_*.deb
cpack -G DEB >&2
ls "$build"/ksdeploy_*_amd64.deb
