#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing.
# Quiet and fast when everything is there already.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkgconf  # the toolchain
  libjsoncpp-dev                 # every JSON document
  libssl-dev                     # SHA-256 (and later token signatures)
  libfmt-dev                     # type-safe printf-style log formatting
  libutfcpp-dev                  # UTF-8 <-> wide conversions
  libdeflate-dev                 # deflate of the scan's archives
  zlib1g-dev                     # CRC-32 of the scan's archives, the inflate that joins pieces
  libzip-dev                     # reading zip archives: tests, zepdiag's summary, benchmarks
  libmosquitto-dev               # zepdiag serve: the MQTT client
  libcurl4-openssl-dev           # zepdiag serve: HTTPS uploads (OpenSSL, for the shared TLS policy)
  libgtest-dev libgmock-dev      # tests
  mosquitto mosquitto-clients    # integration tests: a real broker, and mosquitto_pub
  libcpp-httplib-dev openssl     # integration tests: the HTTPS upload server, certificates made per run
  unzip python3                  # tests: the archives read by unzip -t and Python's zipfile
  libbenchmark-dev               # benchmarks
  dpkg-dev file                  # the Debian package: dpkg-shlibdeps and dpkg-architecture, file for CPack
  clang libclang-rt-14-dev       # fuzzing: libFuzzer and clang's sanitizer runtimes
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "bootstrap: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
