#!/usr/bin/env bats
# The shipped unit and log rotation in a machine of the suite's own: systemd in a container, with the
# programs of this machine and the jobmill installed as README says. All cases share the machine, and
# leave the service running.
# shellcheck disable=SC2016,SC2154  # texts for other shells; variables of setup_file

setup_file() {
  load support.bash
  export machine=$BATS_FILE_TMPDIR/machine vkmaster=/opt/jobmill/bin/vkmaster data=/data cannot=''
  cannot=$(cannot_start systemd-nspawn nsenter logrotate ss)
  [[ -z $cannot ]] || return 0
  make_machine
  boot_machine --directory="$machine" --bind-ro=/usr || {
    cannot="cannot boot a machine: $(tail -n 1 "$BATS_FILE_TMPDIR/console")"
    return 0
  }
  inside systemctl enable --quiet --now "$shipped/systemd/jobmill.service"
}

teardown_file() {
  load support.bash
  end_machine
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

as_alice=(setpriv --reuid 61001 --regid 61001 --clear-groups)


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
    # Nothing is gone that a set-user-id program needs: of 41 capabilities the unit takes 14, and
    # those that the machine lacks.
    inside grep -qE '^NoNewPrivs:.0$' "/proc/$pid/status"
    (($(inside awk '/^CapBnd:/ { print "0x" $2 }' "/proc/$pid/status") ==
      ($(inside awk '/^CapBnd:/ { print "0x" $2 }' /proc/1/status) & 0x1c0b9acfdff)))
    never inside grep -qz ^OPTIONS= "/proc/$pid/environ"
    inside grep -qE '^Groups:[[:space:]]*$' "/proc/$pid/status"
  done
  # What nothing here shows at work.
  diff - <(inside systemctl show jobmill -p KeyringMode -p StartLimitIntervalUSec) <<'SHOWN'
KeyringMode=private
StartLimitIntervalUSec=0
SHOWN
}

@test "LogIsInADirectoryThatOnlyItsGroupMayEnter" {
  [[ $(stat -c '%U:%G %a' "$machine/var/log/jobmill") == root:adm\ 750 ]]
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
  # At once, and then not with every try.
  eventually 20 has_tried_thrice
  inside journalctl --unit jobmill --output cat | grep '^Port 5000 is not free: ' >"$BATS_TEST_TMPDIR/held"
  [[ $(wc -l <"$BATS_TEST_TMPDIR/held") == 1 ]]
  grep -qE ': a connection from 127\.0\.0\.1:[0-9]+, process [0-9]+ of alice since 2[0-9-]+ [0-9:]+ \(.*/vkmpi_dir\.sh .* /data/ TENWELLS .*\)$' \
    "$BATS_TEST_TMPDIR/held"
  goes_on TENWELLS 31
  [[ $(pids_of vksim) == "$simulator" ]]
  leave_runs
  eventually 25 comes_back
}
has_tried_thrice() {
  (($(inside journalctl --unit jobmill --output cat | grep -c '^Error in creating socket') >= 3))
}
journal_has() { inside journalctl --unit jobmill --output cat | grep -q "$1"; }

@test "KilledDaemonComesBack" {
  killed_daemon_comes_back
}

@test "LogOfTheLastStartIsKept" {
  local logs=$machine/var/log/jobmill
  echo 'the last start' >>"$logs/VKJobmill_5000.log"
  inside systemctl restart jobmill
  eventually 25 comes_back
  grep -q '^the last start$' "$logs/VKJobmill_5000.previous.log"
  grep -q '^Daemon started: ' "$logs/VKJobmill_5000.log"
  never grep -q '^the last start$' "$logs/VKJobmill_5000.log"
  # A start that fails takes nothing away.
  inside "$shipped/before-start" -p 5000
  grep -q '^Daemon started: ' "$logs/VKJobmill_5000.log"
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
  [[ $(find "$machine/var/log/jobmill" -name 'VKJobmill_5000.log.*.gz' | wc -l) == 7 ]]
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
