# shellcheck shell=bash
# What the helpers that bring up schedulers share. All they keep lies below $dir, the directory of
# one instance:
#
#   env    to be sourced before the scheduler's commands
#   log/   what the scheduler's daemons say
#   pids/  a file per daemon: process id and start time

die() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# Sets $dir from the argument of a command; the directory itself need not exist.
set_directory() {
  [[ -n ${1:-} && $1 != -* ]] || die "which directory? see the head of $0"
  dir=$(readlink -m -- "$1")
}

# Job scripts and sockets are reached by other accounts, too.
make_directories() {
  mkdir -p "$dir" "$dir/log" "$dir/pids"
  chmod 755 "$dir" "$dir/log" "$dir/pids"
}

# packages_or_77 PACKAGE...: returns 77, with a line that names them, when some are not installed.
packages_or_77() {
  local package states missing=()
  states=$(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "$@" 2>/dev/null)
  for package in "$@"; do
    [[ $'\n'$states$'\n' == *$'\n'"$package installed"$'\n'* ]] || missing+=("$package")
  done
  ((${#missing[@]} == 0)) && return
  echo "not installed: ${missing[*]}"
  return 77
}

listens() {
  local port
  printf -v port '%04X' "$1"
  grep -qsE "^ *[0-9]+: [0-9A-F]+:$port [0-9A-F]+:0000 0A " /proc/net/tcp /proc/net/tcp6
}

# The first of $1 ports in a row that nothing listens on, below those that tests give to daemons and
# the kernel to whoever asks.
free_ports() {
  local first offset
  while true; do
    first=$((3000 + RANDOM % 6900))
    for ((offset = 0; offset < $1; ++offset)); do
      listens $((first + offset)) && continue 2
    done
    echo "$first"
    return
  done
}

# Builds what binds the daemons to one address; start_listening uses it.
build_one_address() {
  "${CXX:-c++}" -O2 -shared -fPIC -Wall -Wextra -o "$dir/one_address.so" "$here/one_address.cc" \
    >"$dir/log/build.out" 2>&1
}

# start_listening NAME ADDRESS [VARIABLE=VALUE]... COMMAND...: start, for a daemon that would listen
# on all addresses of the machine. It listens on ADDRESS.
start_listening() {
  start "$1" LD_PRELOAD="$dir/one_address.so" LISTEN_ADDRESS="$2" "${@:3}"
}

# When process $1 started, in clock ticks since boot: with the id this names a process for good.
# A zombie has ended.
started_at() {
  local stat fields
  read -r stat 2>/dev/null <"/proc/$1/stat" || return
  read -ra fields <<<"${stat##*) }"
  [[ ${fields[0]} != [ZX] ]] && echo "${fields[19]}"
}

# start NAME [VARIABLE=VALUE]... COMMAND...: starts a daemon that stays in the foreground, in a
# session of its own. Of the environment, which some hand to their jobs, it sees only what is given.
start() {
  local name=$1
  shift
  setsid env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C "$@" </dev/null >>"$dir/log/$name.out" 2>&1 &
  echo "$! $(started_at $!)" >"$dir/pids/$name"
  disown $!
}

# Process id of daemon $1, if it runs.
daemon_pid() {
  local pid started
  read -r pid started 2>/dev/null <"$dir/pids/$1" || return
  [[ -n $started && $(started_at "$pid") == "$started" ]] && echo "$pid"
}

# within SECONDS COMMAND...: tries until the command succeeds.
within() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS < end)) || return 1
    sleep 0.05
  done
}

# comes_up SECONDS NAME COMMAND...: tries until the command succeeds, or daemon NAME has ended.
comes_up() {
  within "$1" succeeds_or_ended "${@:2}" && [[ -n $(daemon_pid "$2") ]]
}

succeeds_or_ended() { [[ -z $(daemon_pid "$1") ]] || "${@:2}"; }

all_ended() {
  local pid
  for pid in "$@"; do
    [[ -z $(started_at "$pid") ]] || return 1
  done
}

# end_processes SECONDS PID...: TERM, and KILL for those that are still there after SECONDS.
end_processes() {
  local seconds=$1
  shift
  (($#)) || return 0
  kill -TERM "$@" 2>/dev/null
  within "$seconds" all_ended "$@" && return
  kill -KILL "$@" 2>/dev/null
  within 5 all_ended "$@"
}

# stop SECONDS NAME...: ends these daemons, which have SECONDS to end by themselves.
stop() {
  local seconds=$1 name pid pids=()
  shift
  for name in "$@"; do
    pid=$(daemon_pid "$name") && pids+=("$pid")
  done
  end_processes "$seconds" "${pids[@]}"
  for name in "$@"; do
    rm -f "$dir/pids/$name"
  done
}

# end_all SECONDS COMMAND...: ends the processes that the command lists, and lists them again: they
# may have started others meanwhile.
end_all() {
  local seconds=$1 round pids
  shift
  for ((round = 0; round < 3; ++round)); do
    mapfile -t pids < <("$@" | sort -un)
    ((${#pids[@]})) || return 0
    end_processes "$seconds" "${pids[@]}"
    seconds=0
  done
}

# Processes whose environment holds each of the given entries.
processes_with() {
  local entry files=(/proc/[0-9]*/environ)
  for entry in "$@"; do
    mapfile -t files < <(grep -lszFx -- "$entry" "${files[@]}" </dev/null)
    ((${#files[@]})) || return 0
  done
  printf '%s\n' "${files[@]//[^0-9]/}"
}

# These processes and all that descend from them, as far as /proc tells.
with_descendants() {
  local -A children=()
  local stat pid fields file
  for file in /proc/[0-9]*/stat; do
    read -r stat 2>/dev/null <"$file" || continue
    read -ra fields <<<"${stat##*) }"
    children[${fields[1]}]+=" ${stat%% *}"
  done
  local todo=("$@")
  while ((${#todo[@]})); do
    pid=${todo[0]}
    echo "$pid"
    read -ra fields <<<"${children[$pid]:-}"
    todo=("${todo[@]:1}" "${fields[@]}")
  done
}

last_lines() {
  local file
  for file in "$@"; do
    [[ -s $file ]] || continue
    echo "--- last lines of $file"
    tail -n 15 "$file"
  done >&2
}
