# shellcheck shell=bash disable=SC2034,SC2154  # variables are shared with the suites
# What the suites have in common.

# shellcheck source=tests/deploy/support.bash
source "$(dirname -- "${BASH_SOURCE[0]}")/../deploy/support.bash"

packages=${JOBMILL_PACKAGES:-$root_directory/build/packages}
version=$(sed -nE 's/^project\(jobmill VERSION ([0-9.]+) .*/\1/p' "$root_directory/CMakeLists.txt")
architecture=$(uname -m)

deb() { echo "$packages/$1_$version-1_$(dpkg --print-architecture).deb"; }
rpm_file() { echo "$packages/$1-$version-1.$architecture.rpm"; }

# cannot_package TOOL...: as cannot_start, and when there are no packages to try.
cannot_package() {
  [[ -z $(cannot_start "$@") ]] || { cannot_start "$@" && return; }
  [[ -e $(deb jobmill) && -e $(rpm_file jobmill) ]] ||
    echo "needs packages in $packages, of scripts/package: root, debhelper and rpm"
}
