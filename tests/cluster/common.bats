#!/usr/bin/env bats
# What does not depend on the scheduler.
# shellcheck disable=SC2154  # variables of support.bash
load alone.bash

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
  # The whole site in one network: the stand-in starts the job.
  # shellcheck disable=SC2016
  JOBMILL_SIMULATOR="$programs/vksim" JOBMILL_POLL_SECONDS=1 JOBMILL_GRACE_SECONDS=1 \
    fake="$fake" ask="$ask" site="$work/site" unshare --net bash -c '
      ip link set lo up
      "$fake" "$site" slurm "$ask" && source "$site/env" && "$ask" "$site" set hosts localhost
      timeout 10 "$@"
      "$ask" "$site" down' bash \
    "$root_directory/deploy/scripts/$script" 1 "$work/data" TENWELLS "$comms" 0 >"$work/out" 2>&1 </dev/null 3>&- 4>&- || true
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
  never printed 'signal'
  # The jobmill takes longer ones in pieces.
  never printed '.{1000}'
}

@test "TimeInTheQueueCountsNeitherAsSilenceNorForTheSimulator" {
  occupy
  start_script TENWELLS JOBMILL_LISTEN_SECONDS=4 JOBMILL_SILENCE_SECONDS=4
  submitted
  sleep 6
  release
  runs
}

@test "JobOfAScriptThatIsEndedIsCancelledWhateverTheSchedulerKnowsOfIt" {
  # Taken, but not acknowledged.
  behave lost 1
  start_script TENWELLS
  eventually 10 printed 'could not be submitted .*, trying again$'
  kill "$launched"
  eventually 10 gone "$launched"
  eventually 10 no_jobs
  # Out of reach for a while.
  start_script TENWELLS
  runs
  behave down 1
  kill "$launched"
  sleep 3
  never gone "$launched"
  behave down 0
  eventually 10 gone "$launched"
  eventually 10 no_jobs
}

@test "LastWordsOfTheSchedulerAreAtTheEndOfTheOutput" {
  start_script TENWELLS
  runs
  kill -KILL "$(simulators)"
  eventually 10 gone "$launched"
  [[ $(tail -n 1 "$work/data/TENWELLS.out") == 'slurm: job '*' has ended: FAILED, NonZeroExitCode, signal 9' ]]
}

@test "SimulatorIsAskedToEndBeforeItIsKilled" {
  simulator "trap 'echo ends; exit' TERM" "'$programs/vksim' \"\$@\" &" 'while true; do sleep 0.1; done'
  local each
  for each in slurm local; do
    script=$each start_script TENWELLS JOBMILL_SIMULATOR="$work/simulator"
    runs
    ends
    grep -qx ends "$work/data/TENWELLS.out"
  done
}

# A controller that has connected, and a simulator that then does as told: what a node does that dies
# (the link stays open: it goes to a process that the run does not know), a simulator that ends, one
# that goes on.
connect() {
  cat >"$work/simulator" <<'SIMULATOR'
#!/usr/bin/python3
import os, socket, sys, time
server = socket.create_server(("127.0.0.1", int(sys.argv[sys.argv.index("--port") + 1])))
link, _ = server.accept()
fate = os.path.basename(os.path.realpath(sys.argv[0] + ".fate"))
print("connected", flush=True)
if fate == "dies" and os.fork() == 0:
    os.setsid()
    link.set_inheritable(True)
    os.execve(sys.executable, [sys.executable, "-c", "import time; time.sleep(100)"], {})
time.sleep(100 if fate == "lives" else 0)
SIMULATOR
  cat >"$work/controller" <<'CONTROLLER'
#!/usr/bin/python3
import socket, subprocess, sys, time
script = subprocess.Popen(sys.argv[2:], stdout=subprocess.PIPE, text=True)
for line in script.stdout:
    if line.startswith("HOST="):
        break
link = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
time.sleep(100)
CONTROLLER
  chmod +x "$work/simulator" "$work/controller"
  ln -s "$1" "$work/simulator.fate"
  JOBMILL_SIMULATOR=$work/simulator JOBMILL_POLL_SECONDS=1 JOBMILL_GRACE_SECONDS=4 "$work/controller" "$comms" \
    "$root_directory/deploy/scripts/$script" 1 "$work/data" TENWELLS "$comms" 0 >"$work/out" 2>&1 </dev/null 3>&- 4>&- &
  launched=$!
  eventually 20 grep -qs connected "$work/data/TENWELLS.out"
}
script_has_ended() { no_children "$launched" || grep -q '^State:.Z' "/proc/$(children "$launched")/status"; }

@test "ControllerThatWaitsForADeadNodeIsEndedAfterTheGraceTime" {
  connect dies
  eventually 10 no_jobs
  local since=$SECONDS
  is_child "$launched"
  sleep 2
  is_child "$launched"
  never gone "$launched"
  eventually 20 gone "$launched"
  ((SECONDS - since >= 3))
  eventually 10 no_leftovers
}

@test "ControllerThatCanSeeTheEndOfItsSimulatorIsLeftAlone" {
  connect ends
  eventually 10 script_has_ended
  sleep 6
  never gone "$launched"
  no_leftovers
}

three_queries_since() { (($(called) >= $1 + 3)); }

@test "ControllerIsLeftAloneWhenTheSchedulerHasOnlyLostSightOfItsJob" {
  connect lives
  local before
  for _ in 1 2; do
    before=$(called)
    # Enough for an end to be believed in; then the job is seen again.
    behave late 2
    eventually 10 three_queries_since "$before"
    # The second time is a case of its own, which does not wait since the first.
    sleep 5
  done
  never gone "$launched"
  never script_has_ended
  one_job
}

@test "SimulatorThatNeverListensIsGivenUp" {
  printf '#!/bin/bash\nexec sleep 60\n' >"$work/mute"
  chmod +x "$work/mute"
  start_script TENWELLS JOBMILL_SIMULATOR="$work/mute" JOBMILL_LISTEN_SECONDS=2
  wait "$launched" || true
  printed "did not listen on port $comms within 2 s"
  eventually 10 no_jobs
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
