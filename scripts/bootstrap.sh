#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the demo need.
# Runs apt-get only when something is missing, so a second run is quick and silent.
set -euo pipefail

PACKAGES=(
  cmake g++ make pkg-config
  qt6-base-dev
  liblzma-dev xz-utils
  libcurl4-openssl-dev libssl-dev
  libsqlite3-dev sqlite3
  libgtest-dev googletest libbenchmark-dev
  python3 strace time
  nginx-light
  libxml2-utils graphviz
  liblnk-utils desktop-file-utils
  clang-14 libclang-rt-14-dev
  clang-format-14 clang-tidy-14 cppcheck
  dpkg-dev lintian man-db groff-base
  xvfb dbus x11-apps x11-utils xdotool xclip netpbm qt6-qpa-plugins fonts-dejavu-core
  qt6-l10n-tools qt6-translations-l10n
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
