#!/usr/bin/env bash
# Installs what building and testing need on a Debian 12 machine. Idempotent:
# a second run installs nothing. Runs as root, or through sudo otherwise.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  exec sudo -E bash "$0" "$@"
fi

export DEBIAN_FRONTEND=noninteractive

want=(cmake ninja-build g++ ccache pkg-config libgtest-dev libgmock-dev libbenchmark-dev
      clang libclang-rt-14-dev
      g++-mingw-w64-x86-64-posix wine64
      pulseaudio pulseaudio-utils
      python3
      libfftw3-dev
      nlohmann-json3-dev sox)
missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# miniaudio: Debian 12 has no package, Debian 13 ships the header-only
# libminiaudio-dev (architecture all, no dependencies). Fetch that one package
# through a private apt configuration so the machine's sources stay untouched.
if ! dpkg-query -W -f='${Status}' libminiaudio-dev 2>/dev/null | grep -q 'install ok installed'; then
  echo "setup: installing libminiaudio-dev from Debian 13"
  mirror=$(grep -h -E '^(URIs:|deb )' /etc/apt/sources.list.d/*.sources /etc/apt/sources.list 2>/dev/null \
           | grep -v security | grep -o -E 'https?://[^ ]+' | grep -i debian | head -n 1 || true)
  mirror=${mirror:-http://deb.debian.org/debian}
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  mkdir -p "$tmp/lists/partial" "$tmp/cache/archives/partial" "$tmp/parts" "$tmp/prefs"
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror trixie main" > "$tmp/sources.list"
  opts=(-o Dir::Etc::SourceList="$tmp/sources.list" -o Dir::Etc::SourceParts="$tmp/parts"
        -o Dir::Etc::PreferencesParts="$tmp/prefs" -o Dir::State::Lists="$tmp/lists"
        -o Dir::Cache="$tmp/cache" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=
        -o APT::Get::List-Cleanup=0)
  apt-get "${opts[@]}" update -qq
  (cd "$tmp" && apt-get "${opts[@]}" download libminiaudio-dev)
  dpkg -i "$tmp"/libminiaudio-dev_*.deb >/dev/null
fi
test -f /usr/include/miniaudio/miniaudio.h || test -f /usr/include/miniaudio.h
echo "setup: ready"
