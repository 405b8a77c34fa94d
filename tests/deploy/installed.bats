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
  find . ! -type d -printf '%P\n' | sort >"$work/files"
  diff - "$work/files" <<'FILES'
bin/vkjobmill.exe
bin/vkmaster
bin/vkmpi_dir.sh
bin/vksim
share/jobmill/logrotate/jobmill
share/jobmill/nftables/jobmill.nft
share/jobmill/scripts/common.sh
share/jobmill/scripts/gridengine
share/jobmill/scripts/htcondor
share/jobmill/scripts/local
share/jobmill/scripts/lsf
share/jobmill/scripts/pbs
share/jobmill/scripts/slurm
share/jobmill/scripts/ssh
share/jobmill/systemd/jobmill.service
FILES
  [[ $(readlink -f bin/vkmpi_dir.sh) == "$PWD/share/jobmill/scripts/local" ]]
  # Readable by everybody, writable by their owner alone.
  [[ -z $(find . -type f ! -perm 755 ! -perm 644) ]]
}

@test "UnitNamesWhatIsInstalled" {
  install_to '' "$work/jobmill" >"$work/install.txt"
  local unit=$work/jobmill/share/jobmill/systemd/jobmill.service
  grep -qx "ExecStart=$work/jobmill/bin/vkjobmill.exe -p 5000 -s $work/jobmill/bin/vkmpi_dir.sh" "$unit"
  grep -qxF "#   systemctl enable --now $unit" "$unit"
  never grep -n '@' "$unit"
}

@test "UnitIsFreeOfMistakes" {
  command -v systemd-analyze >/dev/null || skip 'needs systemd'
  install_to '' "$work/jobmill" >"$work/install.txt"
  local unit=$work/jobmill/share/jobmill/systemd/jobmill.service
  systemd-analyze verify --man=no "$unit" >"$work/findings" 2>&1
  [[ ! -s $work/findings ]]
  # It would be found.
  sed -i 's/^KillMode=process$/KillMode=processes/' "$unit"
  systemd-analyze verify --man=no "$unit" >"$work/findings" 2>&1 || true
  grep -q 'kill mode specification' "$work/findings"
}

@test "ThereAreFarMoreDescriptorsThanTasks" {
  local unit=$root_directory/deploy/systemd/jobmill.service.in tasks descriptors
  tasks=$(sed -n 's/^TasksMax=//p' "$unit")
  descriptors=$(sed -n 's/^LimitNOFILE=//p' "$unit")
  ((tasks >= 4096 && descriptors >= 10 * tasks))
}
