#!/usr/bin/env bash
# Installs everything the project builds with, from Debian's archive.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  libsqlite3-dev libicu-dev nlohmann-json3-dev libspdlog-dev libfmt-dev libcli11-dev uuid-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcairo2-dev libpango1.0-dev fonts-dejavu-core fonts-noto-color-emoji
  clang-format python3
  # The cloud on a PostgreSQL server, and the throw-away server its tests run against
  libpqxx-dev postgresql
  # The browser test of the report
  chromium chromium-driver python3-selenium
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update
$sudo apt-get install -y --no-install-recommends "${missing[@]}"
