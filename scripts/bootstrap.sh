#!/usr/bin/env bash
# Installs everything the build, the tests and the benchmarks need, from Debian's packages,
# plus live555 (scripts/fetch_live555.sh). Idempotent; a no-op in well under a second when
# everything is already there.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  cmake g++ make pkg-config git clang-format clang libclang-rt-14-dev
  libjsoncpp-dev libcurl4-openssl-dev libssl-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  python3 ffmpeg libavcodec-dev libavformat-dev libavutil-dev openssl iproute2
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  python3-gi gir1.2-gstreamer-1.0 gir1.2-gst-plugins-base-1.0 gir1.2-gst-rtsp-server-1.0
)

missing=()
status=$(dpkg-query -W -f='${Package} ${db:Status-Abbrev}\n' "${packages[@]}" 2>/dev/null || true)
for p in "${packages[@]}"; do
  grep -q "^$p ii" <<<"$status" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "bootstrap: installing ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ -x scripts/fetch_live555.sh ]; then
  bash scripts/fetch_live555.sh
fi
