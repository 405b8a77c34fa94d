# shellcheck shell=bash disable=SC2034,SC2154  # variables are shared with the suites
# What the suites have in common.

root_directory=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
programs=${JOBMILL_PROGRAMS:-$root_directory/build/release/bin}
# shellcheck source=tests/support/eventually.bash
source "$root_directory/tests/support/eventually.bash"
# shellcheck source=tests/support/machine.bash
source "$root_directory/tests/support/machine.bash"

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

shipped=/opt/jobmill/share/jobmill

# The root directory $machine of a machine with systemd, the jobmill, and an account with models in
# /data. What is to be its /usr is this machine's.
make_machine() {
  mkdir -p "$machine"/{data,dev,etc,opt,proc,root,run,sys,tmp,usr,var/log}
  ln -s usr/{bin,sbin,lib,lib64} "$machine"
  cp -a /etc/alternatives "$machine/etc"
  cp /etc/os-release "$machine/etc"
  : >"$machine/etc/machine-id"  # otherwise it would ask for the settings of a new machine
  printf '%s\n' root:x:0:0::/root:/bin/sh alice:x:61001:61001::/data:/bin/sh \
    nobody:x:65534:65534::/:/bin/false >"$machine/etc/passwd"
  printf '%s\n' root:x:0: alice:x:61001: nogroup:x:65534: >"$machine/etc/group"
  printf '%s: files\n' passwd group hosts >"$machine/etc/nsswitch.conf"
  echo 127.0.0.1 localhost >"$machine/etc/hosts"
  install_to "$machine" /opt/jobmill >/dev/null
  (umask 077 && echo alice alice 1 >"$machine/opt/jobmill/bin/.vk_corvane_users")
  cp "$root_directory"/deploy/examples/*.afi "$machine/data"
  chown -R 61001:61001 "$machine/data"
}
