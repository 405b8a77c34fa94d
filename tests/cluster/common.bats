#!/usr/bin/env bats
# What does not depend on the scheduler, over one of the stand-ins.
# shellcheck disable=SC2154  # variables of support.bash

setup_file() {
  load support.bash
  site_up
}

teardown_file() {
  load support.bash
  site_down
}

setup() {
  load support.bash
  prepare
  comms=$(free_ports)
}

teardown() {
  [[ -n $BATS_TEST_COMPLETED ]] || cat "$work/out" "$work"/data/*.out 2>/dev/null || true
  tidy_up
}

# start_script ROOT [SETTING=VALUE]...
start_script() {
  rm -f "$work/out"
  env HOME=/nowhere USER=nobody LOGNAME=nobody JOBMILL_SIMULATOR="$programs/vksim" \
    JOBMILL_POLL_SECONDS=1 JOBMILL_GRACE_SECONDS=1 "${@:2}" \
    "$root_directory/deploy/scripts/$script" 2 "${data:-$work/data}" "$1" "$comms" "${debug:-0}" \
    >"$work/out" 2>"$work/err" </dev/null &
  launched=$!
}

# A simulator that notes what it was started with.
curious_simulator() {
  cat >"$work/curious" <<SIMULATOR
#!/bin/bash
{ printf '%s\n' "\$@"; echo "cwd \$PWD"; env; } >"$work/seen"
ls -l "/proc/\$\$/fd" >"$work/descriptors"
exec "$programs/vksim" "\$@"
SIMULATOR
  chmod +x "$work/curious"
}

printed() { grep -qE "$1" "$work/out"; }
runs() { eventually 20 printed '^HOST='; }

@test "WrongSettingsGiveOneLine" {
  local setting status
  while read -r setting; do
    status=0
    start_script TENWELLS "$setting"
    wait "$launched" || status=$?
    ((status == 1))
    [[ $(wc -l <"$work/out") == 1 ]]
    printed "^slurm: ${setting%%=*} is '${setting#*=}', "
    [[ ! -s $work/err ]]
  done <<'SETTINGS'
JOBMILL_POLL_SECONDS=0
JOBMILL_POLL_SECONDS=often
JOBMILL_COMMAND_SECONDS=-1
JOBMILL_QUEUE_SECONDS=1.5
JOBMILL_SILENCE_SECONDS=0
JOBMILL_LISTEN_SECONDS=1h
JOBMILL_GRACE_SECONDS=99999999999999999999
JOBMILL_QUEUE=work;rm
JOBMILL_WALL_TIME=12
JOBMILL_WALL_TIME=1:60:00
JOBMILL_SIMULATOR=bin/vksim
SETTINGS
  no_jobs
}

@test "SettingThatWasPutInFrontOfAnotherIsRecognised" {
  start_script TENWELLS JOBMILL_POLL_SECONDS=5:10
  wait "$launched" || true
  printed 'the environment file puts its values in front of those that are set already$'
}

@test "WrongArgumentsDirectoriesAndCommandsGiveOneLine" {
  run "$root_directory/deploy/scripts/slurm" 1 2 3
  ((status == 1))
  [[ $output == 'slurm: expects 5 arguments: '* ]]
  data=$work/nowhere start_script TENWELLS
  wait "$launched" || true
  printed "^slurm: there is no data directory '$work/nowhere'"
  start_script TENWELLS PATH=/usr/bin:/bin "JOBMILL_FAKE="
  if command -v -p sbatch >/dev/null; then
    kill "$launched"
  else
    wait "$launched" || true
    printed '^slurm: there is no sbatch in PATH'
  fi
}

@test "AccountAndDirectoryAreThoseOfTheDatabase" {
  curious_simulator
  # The scheduler's commands see them as the script has set them.
  printf '#!/bin/bash\nenv >"%s"\nexec "%s" "$@"\n' "$work/submission" "$(command -v sbatch)" >"$work/bin/sbatch"
  chmod +x "$work/bin/sbatch"
  start_script TENWELLS JOBMILL_SIMULATOR="$work/curious" PATH="$work/bin:$PATH"
  runs
  grep -qx "HOME=$(getent passwd "$(id -u)" | cut -d: -f6)" "$work/submission"
  grep -qx "USER=$(id -un)" "$work/submission"
  grep -qx "LOGNAME=$(id -un)" "$work/submission"
  local entry
  IFS=: read -r -a entry < <(getent passwd "$(id -u)")
  grep -qx "HOME=${entry[5]}" "$work/seen"
  grep -qx "USER=${entry[0]}" "$work/seen"
  grep -qx "LOGNAME=${entry[0]}" "$work/seen"
  grep -qx "cwd $work/data" "$work/seen"
}

@test "VariablesOfTheEnvironmentFileReachTheSimulator" {
  curious_simulator
  start_script TENWELLS JOBMILL_SIMULATOR="$work/curious" SIM_HOME="/opt/it's \"here\"" \
    LICENCE=1700@head SLURM_JOB_ID=7
  runs
  grep -qxF "SIM_HOME=/opt/it's \"here\"" "$work/seen"
  grep -qx 'LICENCE=1700@head' "$work/seen"
  # Of another job.
  never grep -q '^SLURM_JOB_ID=7' "$work/seen"
}

@test "SimulatorTakesThePlaceOfTheJob" {
  start_script TENWELLS
  runs
  # The shell that reports that the simulator listens may not have ended yet.
  eventually 5 no_shell_of_the_job
  [[ $(simulators | wc -l) == 1 ]]
}
no_shell_of_the_job() {
  local pid
  for pid in $(processes_with "$site_directory/"); do
    [[ $(cat "/proc/$pid/comm") != bash ]] || return
  done
}

@test "NoDescriptorsArePassedOn" {
  curious_simulator
  exec 8<"$work/curious"
  start_script TENWELLS JOBMILL_SIMULATOR="$work/curious"
  exec 8<&-
  runs
  # 255 is where bash reads a script.
  [[ $(grep ' -> ' "$work/descriptors" | grep -cv ' 255 -> ') == 3 ]]
  # The script lets go of its output when it has written the host line.
  eventually 5 reads_and_writes_nothing
  ls "/proc/$launched/fd" >"$work/own"
  # Standard input, output and error, the script, and what it waits on.
  [[ $(wc -l <"$work/own") -le 5 ]]
}
reads_and_writes_nothing() {
  local descriptor
  for descriptor in 0 1 2; do
    [[ $(readlink "/proc/$launched/fd/$descriptor") == /dev/null ]] || return
  done
}

@test "NamesMayHoldBlanksAndQuotes" {
  data="$work/data/it's 100% \"new\""
  mkdir "$data"
  cp "$work/data/TENWELLS.afi" "$data/A \$B.afi"
  data=$data/ start_script "A \$B"
  runs
  # The simulator listens first and says so afterwards.
  eventually 5 grep -q 'Listening on port' "$data/A \$B.out"
}

@test "ProcessesAndDebugFlagReachTheSimulator" {
  curious_simulator
  debug=1 start_script TENWELLS JOBMILL_SIMULATOR="$work/curious"
  runs
  [[ $(head -n 7 "$work/seen" | tr '\n' ' ') == "$work/data TENWELLS --port $comms --processes 2 --debug " ]]
}

@test "WhatTheSimulatorPrintedIsNoHostLine" {
  printf '#!/bin/bash\necho HOST=evil\nprintf "%%01500d\\n" 0\nexit 4\n' >"$work/liar"
  chmod +x "$work/liar"
  start_script TENWELLS JOBMILL_SIMULATOR="$work/liar"
  local status=0
  wait "$launched" || status=$?
  ((status == 1))
  never printed '^HOST='
  printed '^  HOST=evil$'
  printed 'exit status 4'
  # The jobmill takes longer ones in pieces.
  never printed '.{1000}'
}

@test "VariablesOfTheRunAreNobodyElsesBusiness" {
  "$fake" set "$site_directory" delay -1
  start_script TENWELLS
  eventually 10 printed 'is submitted$'
  [[ $(stat -c %a "$work"/data/vk_TENWEL_*.job) == 700 ]]
  kill "$launched"
  "$fake" set "$site_directory" delay 0
}

@test "JobThatNobodyWaitsForEndsAsSoonAsItStarts" {
  "$fake" set "$site_directory" delay -1
  start_script TENWELLS
  eventually 10 printed 'is submitted$'
  local job
  job=$(echo "$work"/data/vk_TENWEL_*.job)
  cp "$job" "$work/job"
  kill "$launched"
  eventually 10 gone "$launched"
  timeout 10 bash "$work/job"
  never listens "$comms"
  "$fake" set "$site_directory" delay 0
}

@test "SimulatorThatNeverListensIsGivenUp" {
  printf '#!/bin/bash\nexec sleep 60\n' >"$work/mute"
  chmod +x "$work/mute"
  start_script TENWELLS JOBMILL_SIMULATOR="$work/mute" JOBMILL_LISTEN_SECONDS=2
  wait "$launched" || true
  printed "did not listen on port $comms within 2 s"
  eventually 10 no_jobs
}
