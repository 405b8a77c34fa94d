# shellcheck shell=bash disable=SC2034,SC2154  # variables are shared with the suites
# What the suites have in common.

# shellcheck source=tests/deploy/support.bash
source "$(dirname -- "${BASH_SOURCE[0]}")/../deploy/support.bash"

packages=${JOBMILL_PACKAGES:-$root_directory/build/packages}
version=$(sed -nE 's/^project\(jobmill VERSION ([0-9.]+) .*/\1/p' "$root_directory/CMakeLists.txt")
architecture=$(uname -m)

# The Python kit is for every architecture.
deb() {
  local built_for
  built_for=$(dpkg --print-architecture)
  [[ $1 != python3-* ]] || built_for=all
  echo "$packages/$1_$version-1_$built_for.deb"
}
rpm_file() {
  local built_for=$architecture
  [[ $1 != python3-* ]] || built_for=noarch
  echo "$packages/$1-$version-1.$built_for.rpm"
}

# cannot_package TOOL...: as cannot_start, and when there are no packages to try.
cannot_package() {
  [[ -z $(cannot_start "$@") ]] || { cannot_start "$@" && return; }
  [[ -e $(deb jobmill) && -e $(rpm_file jobmill) ]] ||
    echo "needs packages in $packages, of scripts/package: root, debhelper and rpm"
}
