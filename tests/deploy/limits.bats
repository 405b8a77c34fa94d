#!/usr/bin/env bats
# The limits of the shipped unit. They need control groups of the second version with all of their
# controllers, which a container here may not have: the machine is a kernel of its own, as a process.
# It runs tries() and is gone; the cases look at what came out.
# shellcheck disable=SC2016,SC2154,SC2317  # texts for other shells; variables of setup_file; tries

setup_file() {
  load support.bash
  export machine=$BATS_FILE_TMPDIR/machine results=$BATS_FILE_TMPDIR/machine/results cannot=''
  cannot=$(cannot_start linux.uml unshare)
  [[ -z $cannot ]] || return 0
  make_machine
  # Does what runs may do, and then takes memory without end.
  install -m 4755 /usr/bin/id "$machine/opt/root-id"
  cat >"$machine/opt/greedy" <<'SCRIPT'
#!/bin/sh
{
  /opt/root-id -u
  unshare --user --map-root-user --pid --fork --mount-proc echo container
  mkdir /dev/shm/project && chmod g+s /dev/shm/project && stat -c %A /dev/shm/project
  setarch -R echo personality
} >/data/allowed 2>&1
echo HOST=nowhere
exec tail /dev/zero
SCRIPT
  { echo '#!/bin/bash' && declare -f tries && echo tries; } >"$machine/opt/tries"
  chmod 755 "$machine"/opt/{greedy,tries}
  mkdir -p "$results" "$machine/etc/systemd/system"
  printf '%s\n' '[Unit]' Requires=basic.target After=basic.target '[Service]' ExecStart=/opt/tries \
    ExecStopPost=/bin/systemctl\ --force\ poweroff >"$machine/etc/systemd/system/tries.service"
  # What it leaves ends with its first process.
  timeout 150 unshare --mount --pid --fork --kill-child --mount-proc bash -c '
    mount --bind /usr "$machine/usr" &&
      TMPDIR=$machine/tmp exec linux.uml mem=256M rootfstype=hostfs rootflags="$machine" rw uml_dir="$machine/tmp" \
        init=/lib/systemd/systemd systemd.unit=tries.service con=null con0=fd:0,fd:1' \
    >"$BATS_FILE_TMPDIR/console" 2>&1 </dev/null 3>&- 4>&- || true
  [[ -e $results/booted ]] ||
    cannot="cannot boot a kernel: $(tail -n 1 "$BATS_FILE_TMPDIR/console")"
}

setup() {
  load support.bash
  [[ -z $cannot ]] || skip "$cannot"
  cd "$results" || return
}

teardown() { [[ -n $BATS_TEST_COMPLETED ]] || tail -n 5 "$results"/*; }

# In the machine.
tries() {
  exec >/results/booted 2>&1
  unit() { systemctl show --property "$1" --value jobmill; }
  connect() { exec 3<>/dev/tcp/127.0.0.1/5000; }
  eventually() { for _ in {1..100}; do if "$@"; then return; fi; sleep 0.2; done; }
  failed() { grep -c '^Error occurred forking controlling thread: ' /var/log/jobmill/VKJobmill_5000.log; }
  all_failed() { (($(failed) == 1100)); }
  was_killed() { journalctl --unit jobmill --output cat | grep 'OOM killer' >/results/killed; }
  is_served() { timeout 5 bash -c 'exec 3<>/dev/tcp/127.0.0.1/5000 && read -r -N 1 <&3'; }
  ip link set lo up
  mkdir -p /etc/systemd/system/jobmill.service.d
  printf '[Service]\nExecStart=\nExecStart=/opt/jobmill/bin/vkjobmill.exe -p 5000 -s /opt/greedy\n' \
    >/etc/systemd/system/jobmill.service.d/greedy.conf
  systemctl enable --now /opt/jobmill/share/jobmill/systemd/jobmill.service
  eventually is_served
  unit MainPID >/results/first
  grep '^Max open files' "/proc/$(unit MainPID)/limits" >/results/descriptors

  systemctl set-property --runtime jobmill TasksMax=1
  for _ in {1..1100}; do connect; done
  exec 3<&-
  eventually all_failed
  failed >/results/failed
  find "/proc/$(unit MainPID)/fd" | wc -l >/results/open
  systemctl set-property --runtime jobmill TasksMax=infinity
  is_served && unit MainPID >/results/after-forks
  journalctl --unit jobmill --output cat >/results/journal

  systemctl set-property --runtime jobmill MemoryMax=64M MemorySwapMax=0
  timeout 20 /opt/jobmill/bin/vkmaster --port 5000 --path /data/ --root TENWELLS --user alice \
    --no-progress status >/results/run 2>&1
  eventually was_killed
  is_served && unit MainPID >/results/after-memory
  cp /data/allowed /results
}

@test "DescriptorsAreThoseOfTheUnit" {
  grep -qE '^Max open files +524288 +524288 ' descriptors
}

@test "DaemonOutlivesForksThatFailAtItsTasks" {
  # More than the 1,024 descriptors that a service has without the unit's word.
  [[ $(cat failed) == 1100 ]]
  (($(cat open) > 1100))
  diff first after-forks
}

@test "RunMayUseSetUserIdProgramsAndContainers" {
  diff - allowed <<'ALLOWED'
0
container
drwxr-sr-x
personality
ALLOWED
}

@test "FloodLeavesTheJournalToOthers" {
  grep -q '^Error occurred forking' journal
  (($(grep -c '^Error occurred forking' journal) < 1100))
}

@test "SimulatorThatIsKilledForMemoryEndsItsRunOnly" {
  grep -q 'A process of this unit has been killed by the OOM killer' killed
  grep -q '^vkmaster: ' run
  diff first after-memory
}
