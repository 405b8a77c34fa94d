#!/usr/bin/env bats
# The installed tree.
# shellcheck disable=SC2154  # variables of support.bash

setup() {
  load support.bash
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-installed.XXXXXX")
}

teardown() { rm -rf "$work"; }

@test "TreeHasProgramsScriptsAndMeasures" {
  install_to "$work" /opt/jobmill >"$work/install.txt"
  cd "$work/opt/jobmill"
  find . ! -type d ! -path './share/doc/*' ! -path './share/man/*' ! -path './share/jobmill/python/*' \
    -printf '%P\n' | sort >"$work/files"
  diff - "$work/files" <<'FILES'
bin/jobmillctl
bin/vkgate
bin/vkjobmill.exe
bin/vkmaster
bin/vkmpi_dir.sh
bin/vksim
include/jobmill_master.h
lib/libjobmill-master.so
lib/libjobmill-master.so.0
lib/libjobmill-master.so.0.1.0
share/bash-completion/completions/jobmillctl
share/bash-completion/completions/vkgate
share/bash-completion/completions/vkmaster
share/jobmill/before-start
share/jobmill/describe.sh
share/jobmill/examples/COMP.afi
share/jobmill/examples/TENWELLS.afi
share/jobmill/examples/TWOWELLS.afi
share/jobmill/examples/master/Forecast.cs
share/jobmill/examples/master/forecast.c
share/jobmill/examples/master/forecast.py
share/jobmill/examples/toy_field.py
share/jobmill/gate/authority
share/jobmill/gate/gate.conf
share/jobmill/gate/jobmill-gate.conf
share/jobmill/gate/users
share/jobmill/logrotate/jobmill
share/jobmill/monitoring/alerts.yml
share/jobmill/monitoring/dashboard.json
share/jobmill/monitoring/prometheus.yml
share/jobmill/nftables/jobmill.nft
share/jobmill/nftables/successor.nft
share/jobmill/scripts/common.sh
share/jobmill/scripts/gridengine
share/jobmill/scripts/htcondor
share/jobmill/scripts/local
share/jobmill/scripts/lsf
share/jobmill/scripts/pbs
share/jobmill/scripts/slurm
share/jobmill/scripts/ssh
share/jobmill/systemd/confined.conf
share/jobmill/systemd/jobmill-collector.service
share/jobmill/systemd/jobmill-gate.service
share/jobmill/systemd/jobmill-logrotate.timer
share/jobmill/systemd/jobmill-status.service
share/jobmill/systemd/jobmill.service
share/jobmill/systemd/jobmill@.service
share/jobmill/wireshark/jobmill.lua
share/zsh/site-functions/_jobmillctl
share/zsh/site-functions/_vkgate
share/zsh/site-functions/_vkmaster
FILES
  diff share/doc/jobmill/uplot-licence "$root_directory/third_party/uplot/LICENSE"
  # The Python kit is whole, and nothing that Python has made of it is there.
  modules() { find jobmill ! -type d ! -path '*/__pycache__/*' | sort; }
  diff <(cd "$root_directory/python" && modules) <(cd share/jobmill/python && find jobmill ! -type d | sort)
  [[ $(readlink -f bin/vkmpi_dir.sh) == "$PWD/share/jobmill/scripts/local" ]]
  # Readable by everybody, writable by their owner alone.
  [[ -z $(find . -type f ! -perm 755 ! -perm 644) ]]
}

@test "UnitNamesWhatIsInstalled" {
  install_to '' "$work/jobmill" >"$work/install.txt"
  local unit=$work/jobmill/share/jobmill/systemd/jobmill.service
  grep -qxF "Environment=\"OPTIONS=-p 5000 -s $work/jobmill/bin/vkmpi_dir.sh\"" "$unit"
  # shellcheck disable=SC2016  # for systemd
  grep -qxF 'ExecStart=/usr/bin/env -u OPTIONS '"$work/jobmill/bin/vkjobmill.exe"' $OPTIONS' "$unit"
  grep -qxF "#   systemctl enable --now $unit" "$unit"
  grep -qxF "#   systemctl enable --now ${unit%.service}@NAME.service" "${unit%.service}@.service"
  grep -qxF 'EnvironmentFile=/etc/jobmill/%i.conf' "${unit%.service}@.service"
  never grep -nE '@[a-z_]+@' "$unit" "${unit%.service}@.service"
}

@test "UnitIsFreeOfMistakes" {
  command -v systemd-analyze >/dev/null || skip 'needs systemd'
  install_to '' "$work/jobmill" >"$work/install.txt"
  local unit=$work/jobmill/share/jobmill/systemd/jobmill.service
  systemd-analyze verify --man=no "$unit" "${unit%.service}@.service" "${unit%.service}-status.service" \
    "${unit%.service}-collector.service" "${unit%.service}-gate.service" >"$work/findings" 2>&1
  [[ ! -s $work/findings ]]
  # It would be found.
  sed -i 's/^KillMode=process$/KillMode=processes/' "$unit"
  systemd-analyze verify --man=no "$unit" >"$work/findings" 2>&1 || true
  grep -q 'kill mode specification' "$work/findings"
}

@test "ExposureIsWhatTheUnitSays" {
  command -v systemd-analyze >/dev/null || skip 'needs systemd'
  install_to '' "$work/jobmill" >"$work/install.txt"
  local units=$work/jobmill/share/jobmill/systemd
  exposure() { systemd-analyze security --offline=yes --no-pager "$1" | sed -n 's/.*level for .*: \([0-9.]*\) .*/\1/p'; }
  [[ $(exposure "$units/jobmill.service") == 8.8 ]]
  # As systemd reads both: an empty assignment takes back what was set before.
  mkdir "$work/confined"
  { grep -v '^CapabilityBoundingSet=' "$units/jobmill.service" && cat "$units/confined.conf"; } \
    >"$work/confined/jobmill.service"
  [[ $(exposure "$work/confined/jobmill.service") == 3.9 ]]
  [[ $(exposure "$units/jobmill-status.service") == 1.1 ]]
  [[ $(exposure "$units/jobmill-gate.service") == 1.2 ]]
  grep -qF '8.8' "$units/jobmill.service"
  grep -qF '3.9' "$units/jobmill.service"
  grep -qF '1.1' "$units/jobmill-status.service"
  grep -qF '1.2' "$units/jobmill-gate.service"
}

@test "DaemonLinksNoTls" {
  install_to "$work" /opt/jobmill >"$work/install.txt"
  needed() { readelf --dynamic "$work/opt/jobmill/bin/$1" | grep NEEDED; }
  never grep -E 'libssl|libcrypto' <(needed vkjobmill.exe)
  # It would be found.
  needed vkgate | grep -q 'libssl'
}

@test "ThereAreFarMoreDescriptorsThanTasks" {
  local unit=$root_directory/deploy/systemd/jobmill.service.in tasks descriptors
  tasks=$(sed -n 's/^TasksMax=//p' "$unit")
  descriptors=$(sed -n 's/^LimitNOFILE=//p' "$unit")
  ((tasks >= 4096 && descriptors >= 10 * tasks))
}

@test "ScriptWithoutWhatTheScriptsShareEndsAtOnce" {
  for script in local slurm pbs lsf gridengine htcondor ssh; do
    cp "$root_directory/deploy/scripts/$script" "$work"
    run timeout 10 "$work/$script" 1 "$work" CASE 9001 0 2>/dev/null </dev/null
    ((status != 0 && status != 124))
    [[ $output == *common.sh:\ No\ such\ file* && $output != *HOST=* ]]
  done
}
