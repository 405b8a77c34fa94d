# shellcheck shell=bash
# What the suites have in common.

root_directory=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
programs=${JOBMILL_PROGRAMS:-$root_directory/build/release/bin}
# shellcheck source=tests/support/eventually.bash
source "$root_directory/tests/support/eventually.bash"

# install_to DIRECTORY PREFIX
install_to() { DESTDIR=$1 cmake --install "$programs/.." --prefix "$2"; }

# cannot_start TOOL...: prints why a suite that needs root and TOOLs cannot be gone through, if so. All
# of its cases are then skipped.
cannot_start() {
  local tool
  ((EUID == 0)) || { echo 'needs root' && return; }
  for tool in "$@"; do
    command -v "$tool" >/dev/null || { echo "needs $tool" && return; }
  done
}
