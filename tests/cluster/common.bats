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

printed() { grep -qsE "$1" "$work/out"; }
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

@test "RootNameThatTheSimulatorWouldTakeForAnOptionIsRefused" {
  touch "$work/data/--help.afi"
  start_script --help
  local status=0
  wait "$launched" || status=$?
  ((status == 1))
  [[ $(<"$work/out") == "slurm: the root name '--help' begins with a hyphen" ]]
  # Elsewhere it is part of a name.
  cp "$work/data/TENWELLS.afi" "$work/data/A-B.afi"
  start_script A-B
  runs
}

@test "RelativeDataPathBeginsInTheDaemonsDirectory" {
  cd "$work"
  local each
  for each in slurm local; do
    script=$each data=data start_script TENWELLS
    runs
    ends
  done
}

@test "HostIsFoundWhereOnlyTheLoopbackInterfaceIsUp" {
  unshare --net true 2>/dev/null || skip "no private network on this machine"
  behave hosts localhost
  # The whole site in one network: the job is started by the first command.
  # shellcheck disable=SC2016
  JOBMILL_SIMULATOR="$programs/vksim" JOBMILL_POLL_SECONDS=1 JOBMILL_GRACE_SECONDS=1 \
    unshare --net bash -c 'ip link set lo up; timeout 10 "$@"' bash \
    "$root_directory/deploy/scripts/$script" 1 "$work/data" TENWELLS "$comms" 0 >"$work/out" 2>&1 </dev/null 3>&- 4>&- || true
  behave hosts ''
  printed '^HOST=localhost$'
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

submitted() { eventually 10 printed ' is submitted$'; }
# The scheduler's copy of the job.
spooled() { echo "$site_directory/$(sed -n 's/.* job \([0-9]*\) .* is submitted$/\1/p' "$work/out").script"; }
refused() {
  local status=0
  wait "$launched" || status=$?
  ((status == 1))
  never printed '^HOST='
}
ends() {
  kill "$launched"
  eventually 10 gone "$launched"
  eventually 10 no_jobs
}

@test "WhatIsExecutedOrHoldsVariablesIsNotBesideTheData" {
  occupy
  start_script TENWELLS LICENCE=1700@head
  submitted
  [[ $(stat -c %a "$work"/data/vk_TENWEL_*) == 700 ]]
  never grep -rqs 1700@head "$work/data"
  [[ -z $(find "$work/data" -type f -perm /111) ]]
  # What the scheduler was given is nobody else's business, either.
  local file
  file=$(grep -rlsF 1700@head "$TMPDIR"/jobmill.*)
  [[ $(stat -c %a "$(dirname "$file")") == 700 ]]
}

@test "JobThatNobodyWaitsForEndsAsSoonAsItStarts" {
  occupy
  start_script TENWELLS
  submitted
  kill "$launched"
  eventually 10 gone "$launched"
  timeout 10 bash "$(spooled)"
  never listens "$comms"
}

@test "JobThatIsStartedOnceMoreDoesNothing" {
  start_script TENWELLS
  runs
  cp "$work"/data/vk_*/report "$work/report"
  timeout 10 bash "$(spooled)"
  cmp "$work"/data/vk_*/report "$work/report"
  [[ $(simulators | wc -l) == 1 ]]
}

# plant KIND FILE: what somebody else could put there. What it leads to is checked by untouched.
plant() {
  echo treasure >"$work/treasure"
  rm -rf "$2"
  case $1 in
    link) ln -s "$work/treasure" "$2" ;;
    dangling) ln -s "$work/nothing" "$2" ;;
    pipe) mkfifo "$2" ;;
    file) ln "$work/treasure" "$2" ;;
  esac
}
untouched() { [[ $(<"$work/treasure") == treasure && ! -e $work/nothing ]]; }
has_output() { [[ -f $work/data/TENWELLS.out && ! -L $work/data/TENWELLS.out ]] && grep -q 'Listening on port' "$work/data/TENWELLS.out"; }

@test "OutputTakesThePlaceOfWhatWasPlantedThere" {
  local kind
  for kind in link dangling pipe file; do
    plant "$kind" "$work/data/TENWELLS.out"
    start_script TENWELLS
    runs
    has_output
    untouched
    ends
  done
}

@test "OutputTakesThePlaceOfWhatIsPlantedWhileTheJobWaits" {
  local kind
  for kind in link dangling pipe file; do
    occupy
    start_script TENWELLS
    submitted
    plant "$kind" "$work/data/TENWELLS.out"
    release
    runs
    has_output
    untouched
    ends
  done
}

@test "OutputThatCannotBeReplacedIsExplained" {
  mkdir "$work/data/TENWELLS.out"
  start_script TENWELLS
  refused
  printed "^slurm: cannot write '$work/data/TENWELLS.out'$"
  rmdir "$work/data/TENWELLS.out"
  occupy
  start_script TENWELLS
  submitted
  mkdir "$work/data/TENWELLS.out"
  release
  refused
  printed "^slurm: cannot write '$work/data/TENWELLS.out' on node $(uname -n) "
  no_leftovers
}

@test "EndOfTheOutputIsNotReadThroughALink" {
  echo treasure >"$work/treasure"
  printf '#!/bin/bash\nln -sf "%s" TENWELLS.out\necho last words\nexit 4\n' "$work/treasure" >"$work/thief"
  chmod +x "$work/thief"
  start_script TENWELLS JOBMILL_SIMULATOR="$work/thief"
  refused
  printed '^  last words$'
  never printed treasure
}

# Directories that a run must not take for its own: not made by it, not in the data directory, not
# closed to others, of another account.
impostors() { echo 'full elsewhere open'; ((EUID != 0)) || echo foreign; }

# put KIND DIRECTORY: puts one in the place of a run's.
put() {
  mv "$2" "$2.away"
  case $1 in
    full)
      mkdir -m 700 "$2"
      echo precious >"$2/report"
      ;;
    elsewhere)
      mkdir -m 700 "$work/elsewhere"
      ln -s "$work/elsewhere" "$2"
      ;;
    open) mkdir -m 777 "$2" ;;
    foreign)
      mkdir -m 700 "$2"
      chown 61234 "$2"
      ;;
  esac
}

@test "DirectoryThatIsPutInThePlaceOfTheRunsIsNotUsed" {
  # Just when it is made.
  cat >"$work/bin/mktemp" <<MKTEMP
#!/bin/bash
work="$work" made=\$($(command -v mktemp) "\$@") && echo "\$made"
$(declare -f put)
[[ \$made != vk_* ]] || put "\$kind" "\$made"
MKTEMP
  chmod +x "$work/bin/mktemp"
  local kind
  for kind in $(impostors); do
    start_script TENWELLS PATH="$work/bin:$PATH" kind="$kind"
    refused
    printed "^slurm: account $(id -un) cannot make a directory of its own in '$work/data'$"
    [[ $(find "$work/data" "$work/elsewhere" -type f -newer "$work/bin/mktemp" 2>/dev/null | sed 's|.*/||') == \
      $([[ $kind != full ]] || echo report) ]]
    [[ $kind != full || $(cat "$work"/data/vk_*/report) == precious ]]
    rm -rf "$work"/data/vk_* "$work/elsewhere"
  done
}

@test "JobStartsFromTheRunsOwnDirectoryOnly" {
  local kind own
  for kind in $(impostors) other; do
    occupy
    start_script TENWELLS
    submitted
    own=$(echo "$work"/data/vk_*)
    if [[ $kind == other ]]; then
      # Another run's.
      echo mark >"$own/report"
    else
      put "$kind" "$own"
      # More than whoever cannot read it could do.
      [[ $kind == full ]] || cp "$own.away/report" "$own/report"
    fi
    release
    refused
    printed 'was ended while it waited|before it could start'
    never listens "$comms"
    [[ $kind != full || $(<"$own/report") == precious ]]
    rm -rf "$work"/data/vk_* "$work/elsewhere"
  done
}

@test "NothingButTheRunsOwnIsRemoved" {
  start_script TENWELLS
  runs
  local own
  own=$(echo "$work"/data/vk_*)
  put full "$own"
  ends
  [[ $(<"$own/report") == precious ]]
  [[ -z $(ls -A "$own.away") ]]
}

# simulator LINE...: one that is made of these lines, in $work/simulator.
simulator() {
  printf '%s\n' '#!/bin/bash' "$@" >"$work/simulator"
  chmod +x "$work/simulator"
}

@test "ListenerOfAnotherAccountIsNotTheSimulator" {
  ((EUID == 0)) || skip "root alone can be another account"
  cp "$programs/vksim" "$work/bin"
  chmod 755 "$work"
  simulator "exec setpriv --reuid 61234 --regid 61234 --clear-groups '$work/bin/vksim' \"\$@\""
  start_script TENWELLS JOBMILL_SIMULATOR="$work/simulator"
  refused
  printed "^slurm: port $comms was taken on node $(uname -n) by a process of account 61234 that is none of the run's \(job "
  eventually 10 no_jobs
}

@test "ListenerOfTheAccountThatIsNoneOfTheRunsIsNotTheSimulator" {
  # Neither a descendant nor marked; or with the mark of another run.
  local words
  for words in 'env -i' 'env JOBMILL_RUN=00000000-0000-0000-0000-000000000000'; do
    simulator "(setsid $words '$programs/vksim' \"\$@\" &)" 'exec sleep 60'
    start_script TENWELLS JOBMILL_SIMULATOR="$work/simulator"
    refused
    printed "^slurm: port $comms was taken .* of account $(id -un) that is none"
    eventually 10 no_jobs
    kill "$(simulators)"
    eventually 10 never listens "$comms"
  done
}

@test "ListenerIsTheSimulatorsByDescentByMarkOrForWantOfSight" {
  local listener sight=$PATH
  for listener in "env -i '$programs/vksim' \"\$@\"; :" "(setsid '$programs/vksim' \"\$@\" &); sleep 60" \
    "(env -i setsid '$programs/vksim' \"\$@\" &); sleep 60"; do
    # The last one can only pass where no process can be seen to have the socket.
    [[ $listener != *'(env'* ]] || { printf '#!/bin/bash\n' >"$work/bin/find"; chmod +x "$work/bin/find"; sight=$work/bin:$PATH; }
    simulator "$listener"
    start_script TENWELLS JOBMILL_SIMULATOR="$work/simulator" PATH="$sight"
    runs
    ends
    kill "$(simulators)" 2>/dev/null || true
    eventually 10 never listens "$comms"
  done
}

@test "SimulatorThatNeverListensIsGivenUp" {
  printf '#!/bin/bash\nexec sleep 60\n' >"$work/mute"
  chmod +x "$work/mute"
  start_script TENWELLS JOBMILL_SIMULATOR="$work/mute" JOBMILL_LISTEN_SECONDS=2
  wait "$launched" || true
  printed "did not listen on port $comms within 2 s"
  eventually 10 no_jobs
}
