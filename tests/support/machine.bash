# shellcheck shell=bash disable=SC2154  # variables of bats and of the suites
# A machine with systemd for tests in bats: a container with a network and control groups of its own.
# eventually.bash has to be sourced as well.

# Where systemd may look for its control groups.
hierarchies=(/sys/fs/cgroup{,/systemd,/unified})

# boot_machine OPTION...: of systemd-nspawn, for the directories of the machine, which runs for
# $machine_seconds at most. What it says is in $BATS_FILE_TMPDIR/console.
boot_machine() {
  export container='' leader='' group_name=jobmill-test-$$
  (
    # Control groups of its own: other machines that are booted here would share those of a caller.
    for hierarchy in "${hierarchies[@]}"; do
      [[ ! -e $hierarchy/cgroup.procs ]] ||
        { mkdir "$hierarchy/$group_name" && echo "$BASHPID" >"$hierarchy/$group_name/cgroup.procs"; }
    done
    # systemd-nspawn looks into --directory for a systemd that knows unified control groups, finds an
    # empty /usr there, and would make groups of the old kind that nobody sees to remove.
    [[ ! -e /sys/fs/cgroup/cgroup.procs ]] || export SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1
    exec timeout "${machine_seconds:-200}" systemd-nspawn --quiet --keep-unit --register=no --private-network \
      --machine="$group_name" --resolv-conf=off --timezone=off --link-journal=no "$@" \
      --boot systemd.unit=basic.target
  ) >"$BATS_FILE_TMPDIR/console" 2>&1 </dev/null 3>&- 4>&- &
  container=$!
  eventually 10 booted_or_ended && booted
}
booted_or_ended() { booted || ! kill -0 "$container" 2>/dev/null; }
booted() {
  local nspawn
  nspawn=$(pgrep -P "$container" -x systemd-nspawn) && leader=$(pgrep -P "$nspawn" -x systemd) &&
    [[ $(inside systemctl is-active basic.target 2>/dev/null) == active ]]
}

end_machine() {
  [[ -z ${leader:-} ]] || kill -KILL "$leader" || true
  [[ -z ${container:-} ]] || wait "$container" || true
  local group
  for group in "${hierarchies[@]/%//${group_name:-none}}"; do
    [[ ! -d $group ]] || eventually 5 find "$group" -depth -type d -exec rmdir {} +
  done
}

inside() { nsenter --target "$leader" --mount --uts --ipc --net --pid -- "$@"; }

# Of a machine whose daemon listens on port 5000:

serves() { inside timeout 2 bash -c 'exec 3<>/dev/tcp/127.0.0.1/5000 && read -r -N 1 <&3' 2>/dev/null; }
refuses() { ! serves; }
# The same for a daemon that has to bind the port first. A connection that the jobmill closed before its
# master did would keep the port for a minute; the tests do not wait for that.
comes_back() {
  inside ss --kill --tcp state time-wait sport = :5000 >/dev/null
  serves
}

# main_pid [UNIT]
main_pid() { inside systemctl show --property MainPID --value "${1:-jobmill}"; }
killed_daemon_comes_back() {
  local daemon
  daemon=$(main_pid jobmill)
  inside kill -KILL "$daemon"
  eventually 25 comes_back
  [[ $(main_pid jobmill) != "$daemon" ]]
}

# The processes of a program, with their numbers inside.
pids_of() { inside pgrep -x "$1"; }
no_runs() { [[ $(pids_of vkjobmill.exe | wc -l) -le 1 ]] && ! pids_of vksim; }

# launch ROOT: a run of the deck in $data, by $vkmaster, that goes on until leave_runs or finish. What is
# told to run_ROOT is done.
launch() {
  trap '' PIPE  # of a master that has ended: the test says so
  mkfifo "$BATS_TEST_TMPDIR/$1"
  inside "$vkmaster" --port 5000 --path "$data/" --root "$1" --user alice --no-progress \
    <"$BATS_TEST_TMPDIR/$1" >"$BATS_TEST_TMPDIR/$1.out" 2>&1 3>&- 4>&- &
  eval "master_$1=$!"
  eval "exec {run_$1}>$BATS_TEST_TMPDIR/$1"
  goes_on "$1" 1
}
# goes_on ROOT DAY: whether the run can still be asked to.
goes_on() {
  local descriptor=run_$1
  echo "until $2" >&"${!descriptor}"
  eventually 10 grep -qE "^ *$2 +20" "$BATS_TEST_TMPDIR/$1.out"
}
# Cuts them off rather than ending them, which leaves the port free.
leave_runs() {
  local master
  for master in $(pids_of vkmaster); do inside kill -KILL "$master"; done
}
# finish ROOT: the master shuts the run down.
finish() {
  local master=master_$1 descriptor=run_$1
  echo quit >&"${!descriptor}"
  wait "${!master}"
}
