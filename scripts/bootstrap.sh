#!/usr/bin/env bash
# Installs what the library and the host build with, from Debian's archive;
# with --tests also what the tests and the benchmarks need.
#   scripts/bootstrap.sh [--tests]
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  libsqlite3-dev libicu-dev nlohmann-json3-dev libspdlog-dev libfmt-dev libcli11-dev uuid-dev
  libpqxx-dev libcairo2-dev libpango1.0-dev fonts-dejavu-core fonts-noto-color-emoji
  # Japanese and Chinese for the charts and the report in those languages
  fonts-ipafont-gothic fonts-wqy-microhei
)
case "${1:-}" in
  "") ;;
  --tests)
    packages+=(
      libgtest-dev libgmock-dev libbenchmark-dev clang-format python3
      # The throw-away PostgreSQL server the cloud's tests run against
      postgresql
      # The browser test of the report
      chromium chromium-driver python3-selenium
      # The Python package's tests, with the data frames it returns
      python3-pytest python3-pandas
    )
    ;;
  *) echo "bootstrap.sh: unknown argument \"$1\" (--tests or nothing)" >&2; exit 2 ;;
esac

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
