# shellcheck shell=bash disable=SC2034,SC2154  # variables are shared with the suites
# What the suites have in common: a daemon of this machine, and wine for the programs of build/windows.

root_directory=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
programs=${JOBMILL_PROGRAMS:-$root_directory/build/release/bin}
built=$root_directory/build/windows/bin
# shellcheck source=tests/support/eventually.bash
source "$root_directory/tests/support/eventually.bash"

# A Windows of its own, made once: that takes some seconds.
export WINEPREFIX=$root_directory/build/windows/wine
export WINEDEBUG=-all WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe=' DISPLAY=
export WINEARCH=win64
# For the names of files, which are UTF-8 here and UTF-16 there.
export LC_ALL=C.UTF-8

cannot_try() {
  local tool
  for tool in wine wineserver python3; do
    command -v "$tool" >/dev/null || [[ -x /usr/lib/wine/$tool ]] || { echo "needs $tool" && return; }
  done
  [[ -x $built/vkmaster.exe ]] || echo 'needs scripts/build-windows'
}

# The first of two ports that nobody uses, above those of the other tests: see tests/support/ports.h.
free_port() {
  python3 - <<'PYTHON'
import random, socket
while True:
    port = random.randrange(30300, 32700)
    try:
        for offset in (0, 1):
            with socket.socket() as probe:
                probe.bind(("127.0.0.1", port + offset))
    except OSError:
        continue
    print(port)
    break
PYTHON
}

# start_daemon [OPTIONS OF VKSIM]: with $port and the data directory $data, which masters name.
start_daemon() {
  data=$work/data
  mkdir -p "$work/bin" "$data"
  cp "$programs/vkjobmill.exe" "$work/bin"
  cp "$root_directory"/deploy/examples/*.afi "$data"
  printf '#!/bin/sh\nexec "%s" %s "$@"\n' "$programs/vksim" "$*" >"$work/simulator"
  chmod +x "$work/simulator"
  echo "JOBMILL_SIMULATOR $work/simulator" >"$work/bin/.vk_corvane_env"
  port=$(free_port)
  setsid "$work/bin/vkjobmill.exe" -u -l -p "$port" -o $((port + 1)) -n 20 \
    -s "$root_directory/deploy/scripts/local" >"$work/daemon.out" 2>&1 </dev/null 3>&- &
  daemon=$!
  eventually 10 grep -qs '^Executable path' "$work/daemon.out"
  options=(--port "$port" --path "$data/" --root TWOWELLS --user demo)
}

stop_daemon() {
  [[ -n ${daemon:-} ]] || return 0
  { kill -- "-$daemon" && wait "$daemon"; } 2>/dev/null || true
  rm -f "/var/log/VKJobmill_$port.log"
}

# windows PROGRAM...: bounded, as everything here.
windows() { timeout --kill-after=5 60 wine "$@" 3>&-; }
vkmaster_exe() { windows "$built/vkmaster.exe" "$@"; }
