# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# What the cases have in common. A site is a scheduler, or a stand-in for one, with the script for it;
# sites/NAME.bash defines:
#
#   script              the distribution script
#   site_available      prints why not, and does not return 0, when the site cannot be brought up
#   site_up, site_down  with all of their state below $site_directory
#   jobs                prints the numbers of the jobs that have not ended
#   occupy, release     takes every processor, so that the next job waits; gives them back
#   cancel NUMBER       as a user would
#   stop_scheduler, start_scheduler
#   settings            lines for the environment file
#
# and `queues`, which is false where nothing ever waits, and `address`, where simulators listen.

root_directory=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd)
cluster_tests=$root_directory/tests/cluster
programs=${JOBMILL_PROGRAMS:-$root_directory/build/release/bin}
examples=$root_directory/deploy/examples
queues=true
# Most schedulers tell the name of this machine as that of the node. It need not lead to 127.0.0.1:
# Debian's installer gives it 127.0.1.1.
address=$(getent ahostsv4 "$(uname -n)" | sed -n '1s/ .*//p')
fake=$cluster_tests/fakes/scheduler
ask=$programs/ask_scheduler
settings() { :; }
# shellcheck source=tests/support/eventually.bash
source "$root_directory/tests/support/eventually.bash"
# shellcheck source=/dev/null
source "$cluster_tests/sites/${SITE:?which site?}.bash"

listens() {
  local port
  printf -v port '%04X' "$1"
  grep -qsE "^ *[0-9]+: [0-9A-F]+:$port [0-9A-F]+:0000 0A " /proc/net/tcp /proc/net/tcp6
}

# The first of 20 ports with which nothing on this machine has to do: for a minute after its last
# connection nobody can listen on a port. Other sites look for theirs at the same time.
free_ports() {
  local first offset port used
  used=" $(awk 'FNR > 1 { sub(/.*:/, "", $2); printf "%s ", $2 }' /proc/net/tcp /proc/net/tcp6 2>/dev/null || true)"
  while true; do
    first=$((${first_port:-10000} + SRANDOM % 380))
    for ((offset = 0; offset < 20; ++offset)); do
      printf -v port %04X $((first + offset))
      if [[ $used == *" $port "* ]]; then continue 2; fi
    done
    echo "$first"
    return
  done
}

# The processes whose command line holds $1.
processes_with() {
  local file name
  grep -lsaF -- "$1" /proc/[0-9]*/cmdline | while IFS=/ read -r _ _ file _; do
    # grep has found itself, too, and may have ended.
    if read -r name 2>/dev/null <"/proc/$file/comm" && [[ $name != grep ]]; then echo "$file"; fi
  done
}

simulators() {
  local pid
  for pid in $(processes_with "$work/data"); do
    [[ $(readlink "/proc/$pid/exe") != */vksim ]] || echo "$pid"
  done
}

children() { pgrep -P "$1"; }
no_children() { ! pgrep -P "$1" >/dev/null; }
gone() { ! is_child "$1" || grep -q '^State:.Z' "/proc/$1/status"; }

no_jobs() { [[ -z $(jobs) ]]; }
one_job() { [[ $(jobs) =~ ^[0-9.]+$ ]]; }
one_more_job() { (($(jobs | wc -l) > $1)); }

# What a case gets: a directory with data, and the settings that make it quick.
prepare() {
  # Bats traces every line, which takes as long as the line.
  local -
  set +T
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-case.XXXXXX")
  mkdir "$work/data" "$work/bin"
  export TMPDIR=$work
  cp "$examples"/*.afi "$work/data"
  printf '#!/bin/sh\nexec "%s" "$@" --address "%s"\n' "$programs/vksim" "${address:-127.0.0.1}" \
    >"$work/bin/vksim-node"
  chmod +x "$work/bin/vksim-node"
  # shellcheck disable=SC1091
  [[ ! -e $site_directory/env ]] || source "$site_directory/env"
  daemon='' launched=''
}

# Whether $1 is a child of this shell. A number that was waited for may be somebody else's by now.
is_child() {
  local stat parent
  [[ -n $1 ]] && read -r stat 2>/dev/null <"/proc/$1/stat" || return
  read -r _ parent _ <<<"${stat##*) }"
  [[ $parent == "$BASHPID" ]]
}

tidy_up() {
  local - pid
  set +T
  ! is_child "$launched" || kill "$launched"
  ! is_child "$daemon" || kill -TERM -- "-$daemon"
  release 2>/dev/null || true
  start_scheduler 2>/dev/null || true
  for pid in $(jobs 2>/dev/null); do cancel "$pid" >/dev/null 2>&1 || true; done
  for pid in $(processes_with "$work/"); do
    [[ $pid == "$$" || $pid == "$BASHPID" ]] || kill -KILL "$pid" 2>/dev/null || true
  done
  eventually 10 no_jobs || true
  rm -rf "$work"
}

environment_file() {
  printf '%s\n' "JOBMILL_SIMULATOR $work/bin/vksim-node" 'JOBMILL_POLL_SECONDS 1' \
    'JOBMILL_GRACE_SECONDS 1' 'JOBMILL_COMMAND_SECONDS 5'
  settings
}

# start_daemon [SETTING VALUE]... [-- OPTION...]
start_daemon() {
  environment_file >"$work/bin/.vk_corvane_env"
  while (($#)) && [[ $1 != -- ]]; do
    # A later line would be put in front of an earlier one.
    sed -i "/^$1 /d" "$work/bin/.vk_corvane_env"
    echo "$1 $2" >>"$work/bin/.vk_corvane_env"
    shift 2
  done
  (($# == 0)) || shift
  cp "$programs/vkjobmill.exe" "$work/bin/"
  port=$(free_ports)
  comms=$((port + 1))
  setsid "$work/bin/vkjobmill.exe" -u -l -p "$port" -o "$comms" -n 10 \
    -s "$root_directory/deploy/scripts/$script" "$@" >"$work/daemon.out" 2>&1 </dev/null 3>&- 4>&- &
  daemon=$!
  : >>"$work/daemon.out"
  eventually 10 grep -q '^Executable path' "$work/daemon.out"
  rm -f "/var/log/VKJobmill_$port.log"
}

daemon_log() { cat "$work/daemon.out"; }
logged() { grep -qE "$1" "$work/daemon.out"; }
not_logged() { ! logged "$1"; }

# master ROOT [COMMAND...]: a run from launch to shutdown; without commands those of standard input.
master() {
  "$programs/vkmaster" --host 127.0.0.1 --port "$port" --path "$work/data/" --root "$1" --user tester \
    --no-progress "${@:2}"
}

# launch ROOT: a run in the background, which goes on until end_run. What it prints is in ROOT.txt.
launch() {
  mkfifo "$work/$1.commands"
  master "$1" <"$work/$1.commands" >"$work/$1.txt" 2>&1 3>&- &
  launched=$!
  exec 7>"$work/$1.commands"
  echo status >&7
}
under_way() { grep -qs TENWELLS "$work/$1.txt" || grep -qsi 'units' "$work/$1.txt"; }
end_run() { exec 7>&-; }

# Everything of the runs is gone: the files that served them, scripts, jobs, simulators.
all_is_quiet() {
  eventually 20 no_leftovers
  eventually 20 no_children "$daemon"
  eventually 20 no_jobs
  eventually 20 nothing_runs
}
no_leftovers() { ! compgen -G "$work/data/vk_*" >/dev/null; }
nothing_runs() {
  local pid
  for pid in $(processes_with "$work/data"); do
    [[ $(cat "/proc/$pid/comm" 2>/dev/null) == vkmaster ]] || return 1
  done
}
