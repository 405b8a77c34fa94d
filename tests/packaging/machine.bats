#!/usr/bin/env bats
# The Debian packages in a Debian of the suite's own, booted, from the installation to the purge: the
# commands of docs/install.md, in their order, and what has to hold meanwhile. The cases build on each
# other. What needs control groups (limits, OOMPolicy=) is tried by tests/deploy/limits.bats.
# shellcheck disable=SC2016,SC2154  # texts for other shells; variables of setup_file

# What the packages depend on, and what else install.md uses.
needed=(systemd systemd-sysv iproute2 logrotate nftables procps libedit2 libfmt9 libssl3
  libtomlplusplus3 openssl)

setup_file() {
  load support.bash
  export vkmaster=vkmaster data=/srv/runs machine_seconds=350 cannot=''
  cannot=$(cannot_package debootstrap slirp4netns systemd-nspawn nsenter)
  [[ -z $cannot ]] || return 0
  make_debian || {
    cannot="cannot make a Debian: $(tail -n 1 "$BATS_FILE_TMPDIR/debian")"
    return 0
  }
  make_newer_packages
  # What is written is gone with the machine.
  boot_machine --directory="$debian" --volatile=overlay --bind-ro="$packages:/packages" \
    --bind-ro="$BATS_FILE_TMPDIR/newer:/newer" --bind-ro="$root_directory/deploy:/deploy" || {
    cannot="cannot boot a machine: $(tail -n 1 "$BATS_FILE_TMPDIR/console")"
    return 0
  }
  inside ip link set lo up
  inside useradd --uid 61001 --no-create-home alice
  inside useradd --uid 61002 --no-create-home --groups adm carol
  inside sh -c 'mkdir -p /srv/runs && cp /deploy/examples/*.afi /srv/runs && chown -R alice /srv/runs'
  files >"$BATS_FILE_TMPDIR/files"
}

teardown_file() {
  load support.bash
  end_machine
}

setup() {
  load support.bash
  [[ -z $cannot ]] || skip "$cannot"
}

teardown() {
  [[ -z $cannot ]] || return 0
  [[ -n $BATS_TEST_COMPLETED ]] || {
    inside systemctl --no-pager --lines 20 status jobmill
    inside ss --tcp --all --numeric --processes
    tail -n 20 "$BATS_TEST_TMPDIR"/{said,*.out} 2>/dev/null
  } || true
  leave_runs
}

# The Debian is made once, by scripts/clean-room, and kept for the next time.
make_debian() {
  local name
  name=packaging-$(sha256sum <<<"${needed[*]}" | cut -c -8)
  export debian=${XDG_CACHE_HOME:-$HOME/.cache}/jobmill/clean-room/rooms/$name/root
  [[ ! -e $debian/made ]] || return 0
  "$root_directory/scripts/clean-room" --keep "$name" sh -c "apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends ${needed[*]} &&
    apt-get clean && touch /made" >"$BATS_FILE_TMPDIR/debian" 2>&1
}

# The packages of a later version, whose programs differ.
make_newer_packages() {
  local tree=$BATS_FILE_TMPDIR/tree
  mkdir "$BATS_FILE_TMPDIR/newer"
  dpkg-deb -R "$(deb jobmill)" "$tree"
  sed -i "s/^Version: .*/Version: $version-2/" "$tree/DEBIAN/control"
  echo >>"$tree/usr/lib/jobmill/vkjobmill.exe"
  dpkg-deb --root-owner-group -b "$tree" "$BATS_FILE_TMPDIR/newer" >/dev/null
}

# All files but those that the package manager, the journal and the runs keep.
files() {
  inside find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /srv \
    -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log/apt \
    -o -path /var/log/dpkg.log -o -path /var/log/journal -o -path /var/lib/logrotate \
    -o -path /var/lib/systemd/timers -o -path /var/lib/systemd/deb-systemd-helper-enabled \) -prune -o -print |
    sort
}

# follow SECTION [DIRECTORY]: gives the commands of a section of install.md, one block after the other.
follow() {
  sed -n "/^## $1\$/,/^## /p" "$root_directory/docs/install.md" | sed -n 's/^    //p' >"$BATS_TEST_TMPDIR/commands"
  [[ -s $BATS_TEST_TMPDIR/commands ]]
  echo "$1" >>"$BATS_FILE_TMPDIR/followed"
  run_commands "${2:-/}"
}
run_commands() {
  # A command that fails under a redirection would end the case without a word.
  inside sh -c "cd $1 && DEBIAN_FRONTEND=noninteractive exec sh -ex" <"$BATS_TEST_TMPDIR/commands" \
    >"$BATS_TEST_TMPDIR/said" 2>&1 3>&- 4>&- || return
}

as() { inside setpriv --reuid "$1" --regid "$1" --init-groups "${@:2}"; }
journal_has() { inside journalctl --unit jobmill --output cat | grep -q "$1"; }

@test "InstallationStartsNothing" {
  follow Install /packages
  [[ $(inside systemctl is-active jobmill) == inactive ]]
  [[ $(inside systemctl is-enabled jobmill) == disabled ]]
  [[ -z $(pids_of vkjobmill.exe) ]]
  [[ $(inside readlink /etc/jobmill/script) == /usr/share/jobmill/scripts/local ]]
  [[ $(inside stat -c '%U:%G %a %s' /etc/jobmill/users) == 'root:root 600 0' ]]
  [[ $(inside stat -c '%U:%G %a %s' /etc/jobmill/environment) == 'root:root 600 0' ]]
  [[ $(inside readlink -f /usr/sbin/vkjobmill.exe) == /usr/lib/jobmill/vkjobmill.exe ]]
  [[ $(inside vkmaster --version) == "vkmaster $version" ]]
}

@test "FreshInstallationLetsNobodyIn" {
  inside systemctl start jobmill
  eventually 20 serves
  local user
  for user in alice root '*' ''; do
    never inside vkmaster --port 5000 --path /srv/runs/ --root TENWELLS --user "$user" until +30 \
      >"$BATS_TEST_TMPDIR/out" 2>&1
  done
  journal_has "^Windows user 'alice' not found in administration file"
  inside systemctl stop jobmill
  [[ -z $(pids_of vkjobmill.exe) ]]
}

@test "FirstRunAfterThePage" {
  follow 'Say who may run'
  follow 'Keep others away'
  inside ss --kill --tcp state time-wait sport = :5000 >/dev/null
  follow Start
  eventually 20 comes_back
  follow 'First run'
  [[ $(inside stat -c %U /srv/first/TENWELLS.out) == alice ]]
  grep -qE '^ *30 +20' "$BATS_TEST_TMPDIR/said"
  grep -q "^Daemon started: " "$BATS_TEST_TMPDIR/said"
  [[ $(inside systemctl is-enabled jobmill) == enabled ]]
  # The shipped filter is in force: an ordinary account does not reach the port.
  never as 61002 timeout 2 bash -c 'exec 3<>/dev/tcp/127.0.0.1/5000' 2>/dev/null
}

@test "LogIsReadByItsGroupAlone" {
  as 61002 grep -q '^Daemon started: ' /var/log/jobmill/VKJobmill_5000.log
  never as 61001 cat /var/log/jobmill/VKJobmill_5000.log
  [[ $(inside stat -c '%U:%G %a' /var/log/jobmill) == 'root:adm 750' ]]
}

# The process that listens on a port.
listener_of() { inside ss --listening --tcp --numeric --processes sport = ":$1" | grep -oP 'pid=\K[0-9]+'; }

@test "OperationsPageIsCarriedOut" {
  local block said=$BATS_TEST_TMPDIR/said
  # But for the door, below.
  awk -v file="$BATS_TEST_TMPDIR/block" '
    /^## / { left_out = $0 == "## A locked door" }
    left_out { next }
    sub(/^    /, "") { if (!inside) count++; inside = 1; print >(file count); next }
    { inside = 0 }' "$root_directory/docs/operations.md"
  for block in $(find "$BATS_TEST_TMPDIR" -name 'block*' | sort --version-sort); do
    echo "${block##*/}"
    if grep -q vkjobmill.exe "$block"; then
      inside sh -ex <"$block" >"$said" 2>&1 3>&- 4>&- &
      eventually 10 listener_of 5002
      inside kill "$(listener_of 5002)"
      wait $! || true
      grep -q '^Daemon started: ' "$said"
      inside rm /var/log/VKJobmill_5002.log
    else
      cp "$block" "$BATS_TEST_TMPDIR/commands"
      run_commands /
    fi
    cat "$said" >>"$BATS_TEST_TMPDIR/all"
  done
  [[ $block == */block6 ]]
  grep -qE 'Active: active \(running\)' "$BATS_TEST_TMPDIR/all"
  grep -qE '^Arguments: .*-p 5000 -s /etc/jobmill/script' "$BATS_TEST_TMPDIR/all"
  # The last lines of the comms log of the first run.
  grep -q '^Process loop has exited naturally' "$said"
}

# Of the ten steps of the door, and what follows them: the commands under what begins with `**TITLE`.
commands_of() {
  awk -v title="**$1" 'index($0, title) == 1 { inside = 1 } inside && sub(/^    /, "") { found = 1; print; next }
    found { exit }' "$root_directory/docs/operations.md" >"$BATS_TEST_TMPDIR/commands"
  [[ -s $BATS_TEST_TMPDIR/commands ]]
}
step() { commands_of "$1" && run_commands "${2:-/}"; }
gate_says() { inside journalctl --unit jobmill-gate --output cat | grep -q "$1"; }
# as_alice COMMAND...: where her certificate is.
as_alice() { as 61001 sh -c 'cd /srv/alice && exec "$@"' - "$@"; }

@test "DoorIsPutInAfterThePage" {
  local said=$BATS_TEST_TMPDIR/said
  inside sh -c 'echo 127.0.0.1 gate.example.com >>/etc/hosts'
  step 1. /packages
  [[ $(inside systemctl is-active jobmill-gate) == inactive ]]
  [[ $(inside systemctl is-enabled jobmill-gate) == disabled ]]
  [[ $(inside vkgate --version) == "vkgate $version" ]]
  step 2.
  step 3.
  step 4.
  step 5.
  step 6.
  eventually 10 gate_says '"event":"listening","port":5443'
  # Alice, with what she has been given.
  inside install -d -o alice /srv/alice
  inside install -m 600 -o alice -t /srv/alice /root/door/{alice@example.com.pem,alice@example.com.key,authority.pem}
  commands_of 7.
  as_alice sh -ex <"$BATS_TEST_TMPDIR/commands" >"$BATS_FILE_TMPDIR/connect.out" 2>&1 3>&- 4>&- &
  eventually 10 grep -q '"event":"listening"' "$BATS_FILE_TMPDIR/connect.out"
  commands_of 8.
  as_alice sh -ex <"$BATS_TEST_TMPDIR/commands" >"$said" 2>&1
  grep -qE '^ *30 +20' "$said"
  eventually 10 gate_says '"event":"admitted".*"claimed":"alice","proof":"upn:alice@example.com"'
  # She cannot be somebody else, and nobody else can be her with her gate.
  never as_alice vkmaster --port 5500 --path /srv/first/ --root TENWELLS --user carol until +30 >"$said" 2>&1
  grep -qF "Windows user 'carol' is not proven by the certificate" "$said"
  never as 61002 vkmaster --port 5500 --path /srv/first/ --root TENWELLS --user alice until +30 >"$said" 2>&1
  grep -qF 'This gate serves its own user' "$said"
  step 9.
  never serves
  never as 61002 timeout 2 bash -c 'exec 3<>/dev/tcp/127.0.0.1/5000' 2>/dev/null
  as_alice vkmaster --port 5500 --path /srv/first/ --root TENWELLS --user alice until +30 >"$said" 2>&1
}

@test "GateHasNoRights" {
  local pid
  pid=$(main_pid jobmill-gate)
  inside grep -qE '^NoNewPrivs:.1$' "/proc/$pid/status"
  inside grep -qE '^CapBnd:.0000000000000000$' "/proc/$pid/status"
  inside grep -qE '^Seccomp:.2$' "/proc/$pid/status"
  [[ $(inside stat -c %U "/proc/$pid") == jobmill-gate ]]
  [[ $(inside awk '/^Max open files/ { print $4 == $5 }' "/proc/$pid/limits") == 1 ]]
  never inside nsenter --target "$pid" --mount -- /bin/sh -c : 2>/dev/null
  # Its key is for root and for it.
  never as 61001 cat /etc/jobmill/gate/key.pem 2>/dev/null
  never as 61001 ls /run/jobmill-gate 2>/dev/null
}

@test "ReloadEndsTheLinksOfTheRevokedAlone" {
  local said=$BATS_TEST_TMPDIR/said pid
  pid=$(main_pid jobmill-gate)
  mkfifo "$BATS_TEST_TMPDIR/commands-of-alice"
  as_alice vkmaster --port 5500 --path /srv/first/ --root TENWELLS --user alice --no-progress \
    <"$BATS_TEST_TMPDIR/commands-of-alice" >"$BATS_TEST_TMPDIR/alice.out" 2>&1 3>&- 4>&- &
  local master=$! run
  exec {run}>"$BATS_TEST_TMPDIR/commands-of-alice"
  trap '' PIPE
  echo 'until 31' >&"$run"
  eventually 10 grep -qE '^ *31 +20' "$BATS_TEST_TMPDIR/alice.out"
  step 10.
  eventually 10 gate_says '"event":"reloaded"'
  echo 'until 61' >&"$run"
  eventually 10 grep -qE '^ *61 +20' "$BATS_TEST_TMPDIR/alice.out"
  step 'When somebody leaves'
  eventually 10 gate_says '"event":"no longer good".*"claimed":"alice"'
  eventually 10 gate_says '"event":"ended".*"claimed":"alice".*"how":"the certificate is no longer accepted"'
  echo 'until 91' >&"$run"
  wait "$master" || true
  never grep -qE '^ *91 +20' "$BATS_TEST_TMPDIR/alice.out"
  never as_alice vkmaster --port 5500 --path /srv/first/ --root TENWELLS --user alice until +30 >"$said" 2>&1
  grep -qF 'this certificate was revoked' "$said"
  [[ $(main_pid jobmill-gate) == "$pid" ]]
}

@test "GateGoesOnAfterAnUpgradeAndIsRemovedAndPurged" {
  local said=$BATS_TEST_TMPDIR/said pid
  pid=$(main_pid jobmill-gate)
  inside apt-get install -y --reinstall "/packages/$(basename "$(deb jobmill-gate)")" >"$said" 2>&1
  [[ $(main_pid jobmill-gate) == "$pid" ]]
  grep -qF "jobmill-gate: the gate goes on with the older program that it was started with (process $pid)." "$said"
  [[ $(inside systemctl is-enabled jobmill-gate) == enabled ]]
  inside apt-get purge -y jobmill-gate >"$said" 2>&1
  never inside systemctl is-active --quiet jobmill-gate
  [[ -z $(inside systemctl list-unit-files --no-legend 'jobmill-gate*') ]]
  never inside test -e /etc/jobmill/gate/gate.conf
  # What the administrator has put there stays, and so does the engineer's end.
  inside test -e /etc/jobmill/gate/key.pem
  inside kill "$(pids_of vkgate)"
  inside rm -r /etc/jobmill/gate /root/door
  inside sed -i 's|^define local_accounts = .*|define local_accounts = { root }|' /etc/jobmill/jobmill.nft
  inside nft --file /etc/jobmill/jobmill.nft
  serves
}

# http PATH [HOST]: what the status page answers.
http() {
  inside timeout 10 bash -c 'exec 3<>/dev/tcp/127.0.0.1/9480 &&
    printf "GET %s HTTP/1.1\r\nHost: %s\r\nConnection: close\r\n\r\n" "$0" "$1" >&3 && cat <&3' "$1" "${2:-localhost}"
}
page_has() { http "$1" 2>/dev/null | grep -qF -- "$2"; }

@test "StatusPageIsOffUntilItIsStarted" {
  sed -n '/^## Watch the runs$/,/^It is not/s/^    //p' "$root_directory/docs/install.md" >"$BATS_TEST_TMPDIR/commands"
  run_commands /packages
  [[ $(inside systemctl is-active jobmill-status) == inactive ]]
  [[ $(inside systemctl is-enabled jobmill-status) == disabled ]]
  [[ $(inside systemctl is-active jobmill-collector) == inactive ]]
  sed -n '/^It is not/,/^## /s/^    //p' "$root_directory/docs/install.md" >"$BATS_TEST_TMPDIR/commands"
  run_commands /
  echo 'Watch the runs' >>"$BATS_FILE_TMPDIR/followed"
  eventually 20 page_has /metrics 'jobmill_collector_up 1'
  page_has /metrics 'jobmill_daemons 1'
  launch TENWELLS
  eventually 20 page_has / '<b>TENWELLS</b>'
  # In full: the collector has the right to look.
  eventually 20 page_has '/?state=waiting%20for%20the%20master' '<b>TENWELLS</b>'
  page_has / 'alice'
  eventually 20 page_has /api/check '"findings"'
  # What the unit takes from the collector does not look like a fault of the site.
  never page_has /api/check 'read-only'
  eventually 70 page_has /api/history '"sentence"'
  [[ $(http / evil.example) == *' 421 '* ]]
  finish TENWELLS
  # It can be reached from the machine itself alone, and has no rights.
  [[ $(inside ss --listening --tcp --numeric --no-header sport = :9480 | awk '{ print $4 }') == 127.0.0.1:9480 ]]
  local pid
  pid=$(main_pid jobmill-status)
  [[ $(inside awk '/^Uid:/ { print ($2 >= 61184 && $2 <= 65519) }' "/proc/$pid/status") == 1 ]]
  inside grep -qE '^NoNewPrivs:.1$' "/proc/$pid/status"
  inside grep -qE '^CapEff:.0000000000000000$' "/proc/$pid/status"
  # What it shows others reach by asking it and in no other way, and nothing can be executed in it.
  never as 61001 cat /run/jobmill-status/seen/snapshot.json 2>/dev/null
  never inside nsenter --target "$pid" --mount -- /bin/sh -c : 2>/dev/null
  # The collector comes back alone, and goes when nobody wants it.
  local collector
  collector=$(main_pid jobmill-collector)
  inside kill -KILL "$collector"
  eventually 20 is_another_collector "$collector"
  inside systemctl stop jobmill-status
  eventually 20 collector_has_gone
  inside systemctl start jobmill-status
  eventually 20 page_has /metrics 'jobmill_collector_up 1'
}
is_another_collector() { [[ $(main_pid jobmill-collector) != 0 && $(main_pid jobmill-collector) != "$1" ]]; }
collector_has_gone() { [[ $(inside systemctl is-active jobmill-collector) == inactive ]]; }

@test "StatusPageGoesOnAfterAnUpgradeAndIsRemovedAndPurged" {
  local before
  before=$(main_pid jobmill-status)
  inside apt-get install -y --reinstall "/packages/$(basename "$(deb jobmill-status)")" >"$BATS_TEST_TMPDIR/said" 2>&1
  eventually 20 page_has /metrics 'jobmill_collector_up 1'
  [[ $(main_pid jobmill-status) != "$before" ]]
  [[ $(inside systemctl is-enabled jobmill-status) == enabled ]]
  inside apt-get remove -y jobmill-status >"$BATS_TEST_TMPDIR/said" 2>&1
  never inside systemctl is-active --quiet jobmill-status
  never inside systemctl is-active --quiet jobmill-collector
  never page_has / html
  serves
  inside apt-get purge -y jobmill-status >"$BATS_TEST_TMPDIR/said" 2>&1
  [[ -z $(inside systemctl list-unit-files --no-legend 'jobmill-status*' 'jobmill-collector*') ]]
  [[ -z $(inside find /run /etc /usr /var/lib -xdev \( -name 'jobmill-status*' -o -name 'jobmill-collector*' \) \
    ! -path '/var/lib/dpkg/*') ]]
}

@test "RunGoesOnThroughARestart" {
  launch TENWELLS
  local simulator daemon
  simulator=$(pids_of vksim)
  daemon=$(main_pid)
  inside systemctl restart jobmill || true
  eventually 10 journal_has '^Port 5000 is not free: a connection from 127.0.0.1:.* of alice since .*/etc/jobmill/script .* TENWELLS'
  goes_on TENWELLS 31
  [[ $(pids_of vksim) == "$simulator" ]]
  [[ $(main_pid) != "$daemon" ]]
  goes_on TENWELLS 3650
  finish TENWELLS
  eventually 25 comes_back
}

@test "UpgradeEndsNoRunAndTurnsNoMasterAway" {
  # What an administrator changes.
  inside sed -i 's/ -n 100/ -n 99/' /etc/jobmill/jobmill.conf
  inside ln -sfT ../../usr/share/jobmill/scripts/local /etc/jobmill/script
  launch TENWELLS
  local daemon simulator
  daemon=$(main_pid)
  simulator=$(pids_of vksim)
  # Masters come all the time.
  inside sh -c 'until [ -e /run/upgraded ]; do
    timeout 2 bash -c "exec 3<>/dev/tcp/127.0.0.1/5000 && read -r -N 1 <&3" || echo refused; echo asked; done' \
    >"$BATS_TEST_TMPDIR/asked" 2>&1 3>&- 4>&- &
  local asker=$!
  sed -n '/^## Install$/,/^## /s/^    //p' "$root_directory/docs/install.md" |
    sed 's: \./jobmill-[^ ]*::g' >"$BATS_TEST_TMPDIR/commands"
  run_commands /newer
  inside touch /run/upgraded
  wait "$asker"
  grep -q asked "$BATS_TEST_TMPDIR/asked"
  never grep refused "$BATS_TEST_TMPDIR/asked"
  [[ $(inside dpkg-query -W -f '${Version}' jobmill) == "$version-2" ]]
  grep -qF "jobmill: jobmill.service goes on with the older program that it was started with (process $daemon)." \
    "$BATS_TEST_TMPDIR/said"
  [[ $(main_pid) == "$daemon" ]]
  [[ $(inside readlink "/proc/$daemon/exe") == '/usr/lib/jobmill/vkjobmill.exe (deleted)' ]]
  goes_on TENWELLS 31
  [[ $(pids_of vksim) == "$simulator" ]]
  launch COMP
  finish COMP
  [[ $(inside readlink /etc/jobmill/script) == ../../usr/share/jobmill/scripts/local ]]
  inside grep -q -- '-n 99' /etc/jobmill/jobmill.conf
  [[ $(inside cat /etc/jobmill/users) == 'alice alice 1' ]]
  finish TENWELLS
}

@test "NewDaemonBesideTheOldTakesTheNewMasters" {
  local old new
  old=$(main_pid)
  launch TENWELLS
  # Up to where the old daemon's last run has ended.
  sed -n '/^## A new daemon/,/^When the old/s/^    //p' "$root_directory/docs/install.md" >"$BATS_TEST_TMPDIR/commands"
  run_commands /
  new=$(main_pid jobmill@next)
  [[ $(inside readlink "/proc/$new/exe") == /usr/lib/jobmill/vkjobmill.exe ]]
  eventually 20 serves
  launch COMP
  # Its process belongs to the new daemon, the first run goes on in the old.
  [[ $(inside pgrep -P "$new" -x vkjobmill.exe | wc -l) == 1 ]]
  [[ $(inside pgrep -P "$old" -x vkjobmill.exe | wc -l) == 1 ]]
  goes_on TENWELLS 31
  goes_on COMP 31
  # The packet filter guards the new port as it did the old.
  never as 61002 timeout 2 bash -c 'exec 3<>/dev/tcp/127.0.0.1/5001' 2>/dev/null
  never as 61002 timeout 2 bash -c 'exec 3<>/dev/tcp/127.0.0.1/5000' 2>/dev/null
  finish TENWELLS
  inside ss --kill --tcp state time-wait sport = :5000 >/dev/null
  sed -n '/^When the old/,/^Runs of the other/s/^    //p' "$root_directory/docs/install.md" >"$BATS_TEST_TMPDIR/commands"
  run_commands /
  eventually 25 comes_back
  [[ $(inside readlink "/proc/$(main_pid)/exe") == /usr/lib/jobmill/vkjobmill.exe ]]
  serves
  goes_on COMP 61
  finish COMP
  sed -n '/^Runs of the other/,/^## Remove/s/^    //p' "$root_directory/docs/install.md" >"$BATS_TEST_TMPDIR/commands"
  run_commands /
  never inside nft list table ip jobmill_successor 2>/dev/null
  echo 'A new daemon beside the old one' >>"$BATS_FILE_TMPDIR/followed"
}

@test "KilledDaemonComesBack" {
  killed_daemon_comes_back
}

@test "RotationBoundsTheLog" {
  [[ $(inside systemctl is-active jobmill-logrotate.timer) == active ]]
  [[ $(inside systemctl show --property Unit --value jobmill-logrotate.timer) == logrotate.service ]]
  inside systemctl start logrotate.service
  inside truncate --size=51M /var/log/jobmill/VKJobmill_5000.log
  inside systemctl start logrotate.service
  [[ $(inside stat -c %s /var/log/jobmill/VKJobmill_5000.log) == 0 ]]
  inside test -s /var/log/jobmill/VKJobmill_5000.log.1.gz
  inside test -s /var/log/jobmill/VKJobmill_5000.previous.log
  serves
  inside grep -q '^Accepted incoming connection' /var/log/jobmill/VKJobmill_5000.log
}

# The commands of the section up to those for the purge, or these.
removal() { sed -n '/^## Remove$/,/^## In another/s/^    //p' "$root_directory/docs/install.md" | grep "$1"; }

# Whether what was said names the run that goes on, by the processes that it has.
names_the_run() {
  local run='jobmill: a run goes on and is left alone: process ([0-9]+) of alice since .* \(the controller; its script is process ([0-9]+): .* TENWELLS'
  [[ $(<"$BATS_TEST_TMPDIR/said") =~ $run ]] && [[ $(pids_of vkjobmill.exe) == "${BASH_REMATCH[1]}" ]] &&
    [[ $(inside pgrep -P "${BASH_REMATCH[1]}") == "${BASH_REMATCH[2]}" ]]
}

@test "RemovalLetsRunsGoOn" {
  follow Upgrade
  eventually 25 comes_back
  launch TENWELLS
  local daemon
  daemon=$(main_pid)
  removal 'apt-get remove' >"$BATS_TEST_TMPDIR/commands"
  run_commands /
  grep -qF "jobmill: the daemon of jobmill.service, process $daemon, is stopped" "$BATS_TEST_TMPDIR/said"
  names_the_run
  refuses
  never inside test -e /usr/lib/jobmill/vkjobmill.exe
  inside test -e /etc/jobmill/users
  inside test -e /var/log/jobmill/VKJobmill_5000.log
  goes_on TENWELLS 31
  removal 'apt-get purge' >"$BATS_TEST_TMPDIR/commands"
  run_commands /
  names_the_run
  never inside test -e /var/log/jobmill
  goes_on TENWELLS 61
  finish TENWELLS
  inside test -s /srv/runs/TENWELLS.out
  echo Remove >>"$BATS_FILE_TMPDIR/followed"
}

@test "PurgeLeavesNothing" {
  sed -n '/^## Install$/,/^## /s/^    //p' "$root_directory/docs/install.md" >"$BATS_TEST_TMPDIR/commands"
  run_commands /packages
  inside cp /etc/jobmill/jobmill.conf /etc/jobmill/next.conf
  inside sed -i 's/-p 5000/-p 5001/' /etc/jobmill/next.conf
  inside ss --kill --tcp state time-wait '( sport = :5000 or sport = :5001 )' >/dev/null
  inside systemctl enable --quiet --now jobmill jobmill@next
  eventually 20 comes_back
  inside apt-get purge -y jobmill jobmill-client jobmill-simulator >"$BATS_TEST_TMPDIR/said" 2>&1
  never grep 'left alone' "$BATS_TEST_TMPDIR/said"
  [[ -z $(pids_of vkjobmill.exe) ]]
  # That was installed in addition, with commands of install.md.
  inside rm -f /etc/jobmill/jobmill.nft
  inside rmdir --ignore-fail-on-non-empty /etc/jobmill
  files | diff "$BATS_FILE_TMPDIR/files" -
  [[ -z $(inside systemctl list-units --all --plain --no-legend 'jobmill*') ]]
  [[ -z $(inside systemctl list-unit-files --no-legend 'jobmill*') ]]
  [[ -z $(inside find /run -name '*jobmill*') ]]
  never inside getent passwd jobmill
}

@test "PageHasNoCommandThatWasNotTried" {
  local sections
  sections=$(awk '/^## / { section = substr($0, 4) } /^    / { print section }' \
    "$root_directory/docs/install.md" | sort -u)
  diff <(echo "$sections") <(sort -u "$BATS_FILE_TMPDIR/followed")
}
