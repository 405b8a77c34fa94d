#!/usr/bin/env bats
# The shipped unit and log rotation in a machine of the suite's own: systemd in a container, with the
# programs of this machine and the jobmill installed as README says. All cases share the machine, and
# leave the service running.
# shellcheck disable=SC2016,SC2154  # texts for other shells; variables of setup_file

setup_file() {
  load support.bash
  export machine=$BATS_FILE_TMPDIR/machine container='' leader='' group_name=jobmill-test-$$ cannot=''
  cannot=$(cannot_start systemd-nspawn nsenter logrotate ss)
  [[ -z $cannot ]] || return 0
  make_machine
  boot_machine || {
    cannot="cannot boot a machine: $(tail -n 1 "$BATS_FILE_TMPDIR/console")"
    return 0
  }
  inside systemctl enable --quiet --now "$shipped/systemd/jobmill.service"
}

teardown_file() {
  load support.bash
  [[ -z $leader ]] || kill -KILL "$leader" || true
  [[ -z $container ]] || wait "$container" || true
  local group
  for group in "${hierarchies[@]/%//$group_name}"; do
    [[ ! -d $group ]] || eventually 5 find "$group" -depth -type d -exec rmdir {} +
  done
}

setup() {
  load support.bash
  [[ -z $cannot ]] || skip "$cannot"
  eventually 25 comes_back
  eventually 20 no_runs
}

teardown() {
  [[ -z $cannot ]] || return 0
  [[ -n $BATS_TEST_COMPLETED ]] || {
    inside systemctl --no-pager --lines 20 status jobmill
    inside ss --tcp --all --numeric --processes
  } || true
  leave_runs
  eventually 20 no_runs
}

# Where systemd may look for its control groups.
hierarchies=(/sys/fs/cgroup{,/systemd,/unified})

boot_machine() {
  (
    # Control groups of its own: other machines that are booted here would share those of a caller.
    for hierarchy in "${hierarchies[@]}"; do
      [[ ! -e $hierarchy/cgroup.procs ]] ||
        { mkdir "$hierarchy/$group_name" && echo "$BASHPID" >"$hierarchy/$group_name/cgroup.procs"; }
    done
    # systemd-nspawn looks into --directory for a systemd that knows unified control groups, finds an
    # empty /usr there, and would make groups of the old kind that nobody sees to remove.
    [[ ! -e /sys/fs/cgroup/cgroup.procs ]] || export SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1
    exec timeout 200 systemd-nspawn --quiet --keep-unit --register=no --directory="$machine" \
      --bind-ro=/usr --private-network --machine="$group_name" --resolv-conf=off --timezone=off \
      --link-journal=no --boot systemd.unit=basic.target
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

inside() { nsenter --target "$leader" --mount --uts --ipc --net --pid -- "$@"; }
as_alice=(setpriv --reuid 61001 --regid 61001 --clear-groups)

main_pid() { inside systemctl show --property MainPID --value jobmill; }
serves() { inside timeout 2 bash -c 'exec 3<>/dev/tcp/127.0.0.1/5000 && read -r -N 1 <&3' 2>/dev/null; }
refuses() { ! serves; }
# The same for a daemon that has to bind the port first. A connection that the jobmill closed before its
# master did would keep the port for a minute; the tests do not wait for that.
comes_back() {
  inside ss --kill --tcp state time-wait sport = :5000 >/dev/null
  serves
}

# The processes of a program, with their numbers inside.
pids_of() { inside pgrep -x "$1"; }
no_runs() { [[ $(pids_of vkjobmill.exe | wc -l) -le 1 ]] && ! pids_of vksim; }

# launch ROOT: a run that goes on until leave_runs; what is told to run_ROOT is done.
launch() {
  mkfifo "$BATS_TEST_TMPDIR/$1"
  inside /opt/jobmill/bin/vkmaster --port 5000 --path /data/ --root "$1" --user alice --no-progress \
    <"$BATS_TEST_TMPDIR/$1" >"$BATS_TEST_TMPDIR/$1.out" 2>&1 3>&- 4>&- &
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

@test "RunGoesThroughTheService" {
  launch TENWELLS
  [[ $(inside stat -c %u "/proc/$(pids_of vksim)") == 61001 ]]
  [[ $(stat -c %u "$machine/data/TENWELLS.out") == 61001 ]]
}

@test "LimitsAndPrivilegesAreThoseOfTheUnit" {
  launch TENWELLS
  local pid descriptors
  # What the unit says, where the machine that the tests run on lets a container have as many.
  descriptors=$(inside awk '/^Max open files/ { print $5 < 524288 ? $5 : 524288 }' /proc/1/limits)
  for pid in "$(main_pid)" "$(pids_of vksim)"; do
    inside grep -qE "^Max open files +$descriptors " "/proc/$pid/limits"
    inside grep -qE '^NoNewPrivs:.1$' "/proc/$pid/status"
    inside grep -qE '^CapBnd:.00000000000000c0$' "/proc/$pid/status"
    inside grep -qE '^Groups:[[:space:]]*$' "/proc/$pid/status"
  done
  # What nothing here shows at work.
  diff - <(inside systemctl show jobmill -p KeyringMode -p StartLimitIntervalUSec) <<'SHOWN'
KeyringMode=private
StartLimitIntervalUSec=0
SHOWN
}

@test "LogIsInADirectoryThatOnlyRootMayEnter" {
  [[ $(stat -c '%U:%G %a' "$machine/var/log/jobmill") == root:root\ 750 ]]
  grep -q '^Accepted incoming connection: ' "$machine/var/log/jobmill/VKJobmill_5000.log"
  never inside "${as_alice[@]}" cat /var/log/jobmill/VKJobmill_5000.log
  [[ -z $(find "$machine/var/log" "$machine/tmp" -maxdepth 1 -name 'VKJobmill*') ]]
}

@test "RunSurvivesARestartAndKeepsThePortUntilItEnds" {
  launch TENWELLS
  local simulator daemon
  simulator=$(pids_of vksim)
  daemon=$(main_pid)
  # Its status tells whether systemd was quicker to see the start or its refusal.
  inside systemctl restart jobmill || true
  [[ $(main_pid) != "$daemon" ]]
  # The run's process keeps the port, but does not listen on it.
  refuses
  eventually 10 journal_has 'Error in creating socket to listen on port 5000: check netstat'
  goes_on TENWELLS 31
  [[ $(pids_of vksim) == "$simulator" ]]
  leave_runs
  eventually 25 comes_back
}
journal_has() { inside journalctl --unit jobmill --output cat | grep -q "$1"; }

@test "KilledDaemonComesBack" {
  local daemon
  daemon=$(main_pid)
  inside kill -KILL "$daemon"
  eventually 25 comes_back
  [[ $(main_pid) != "$daemon" ]]
}

@test "SimulatorThatIsKilledEndsItsRunOnly" {
  launch TENWELLS
  local first daemon
  first=$(pids_of vksim)
  daemon=$(main_pid)
  launch COMP
  inside kill -KILL "$first"
  echo 'until 31' >&"$run_TENWELLS"
  eventually 10 grep -q '^vkmaster: The daemon ended the connection' "$BATS_TEST_TMPDIR/TENWELLS.out"
  goes_on COMP 31
  [[ $(main_pid) == "$daemon" ]]
  serves
}

# rotate [OPTION...]: what logrotate's timer does.
rotate() {
  inside logrotate --state /tmp/rotated "$@" "$shipped/logrotate/jobmill"
}
log_size() { stat -c %s "$machine/var/log/jobmill/VKJobmill_5000.log"; }

@test "RotationLosesNoLaterLineOfDaemonOrRun" {
  local log=$machine/var/log/jobmill/VKJobmill_5000.log
  # In the middle of its handshake.
  coproc inside bash -c '
    exec 3<>/dev/tcp/127.0.0.1/5000 && read -r -N 1 <&3 && echo begun && read -r &&
      printf "\1\0\0\0000" >&3 && cat <&3 >/dev/null' 3>&- 4>&-
  read -r <&"${COPROC[0]}"
  rotate --force
  [[ $(log_size) == 0 ]]
  serves
  echo >&"${COPROC[1]}"
  eventually 10 grep -q '^Incorrect response from Corvane' "$log"
  # In order, and nothing in the place of what went with the copy.
  head -n 1 "$log" | grep -aq '^Accepted incoming connection: '
  never grep -aqP '\0' "$log"
  zgrep -q '^Daemon started: ' "$log.1.gz"
  never grep -q '^Daemon started: ' "$log"
}

@test "RotationBoundsSizeAndNumberOfTheLogs" {
  local log=$machine/var/log/jobmill/VKJobmill_5000.log line
  rotate
  truncate --size=51M "$log"
  rotate
  (($(log_size) == 0))
  for line in {1..8}; do
    echo "$line" >>"$log"
    rotate --force
  done
  [[ $(find "$machine/var/log/jobmill" -name '*.gz' | wc -l) == 7 ]]
  [[ $(stat -c '%U:%G %a' "$log") == root:root\ 666 ]]
  never inside "${as_alice[@]}" cat "/var/log/jobmill/VKJobmill_5000.log.1.gz"
  # Once a day otherwise.
  serves
  rotate
  (($(log_size) > 0))
}

@test "RotationTouchesNoPlantedFile" {
  local logs=$machine/var/log/jobmill
  echo precious | tee "$machine/data/linked" >"$machine/data/named"
  ln -s /data/linked "$logs/VKJobmill_1.log"
  ln "$machine/data/named" "$logs/VKJobmill_2.log"
  serves
  eventually 10 no_runs
  rotate --force || true
  [[ $(cat "$machine/data/linked" "$machine/data/named") == $'precious\nprecious' ]]
  [[ $(log_size) == 0 ]]
  rm "$logs"/VKJobmill_[12].log
  # Nothing is done at all where others could plant something.
  chmod 1777 "$logs"
  serves
  never rotate --force
  (($(log_size) > 0))
  chmod 750 "$logs"
}
