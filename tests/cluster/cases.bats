#!/usr/bin/env bats
# The cases of every site: runs through daemon, scheduler and stand-in simulator.
# shellcheck disable=SC2154  # variables of support.bash

setup_file() {
  load support.bash
  local why
  if why=$(site_available); then
    site_up
  else
    export MISSING=$why
  fi
}

teardown_file() {
  load support.bash
  [[ -n ${MISSING:-} ]] || site_down
}

setup() {
  [[ -z ${MISSING:-} ]] || skip "$MISSING"
  load support.bash
  prepare
}

teardown() {
  [[ -z ${work:-} ]] || {
    [[ -n $BATS_TEST_COMPLETED ]] || { cat "$work/daemon.out" "$work"/*.txt "$work"/data/*.out 2>/dev/null || true; }
    tidy_up
  }
}

needs_queue() { "$queues" || skip "there is no queue"; }

@test "AWholeRunGoesThroughTheScheduler" {
  start_daemon
  master TENWELLS >"$work/TENWELLS.txt" 2>&1 <<'COMMANDS'
status
until 2022-01-01 step monthly rates
data
ipr P1 bhp lift
constrain P1 liquid=1000
until +1
data P1
until 2030-01-01 step monthly rates
data
COMMANDS
  grep -q ' 2029-12-01 ' "$work/TENWELLS.txt"
  logged '^Host detected: '
  logged "$script: job .* is submitted"
  # The simulator may still be writing when the master has its answer.
  all_is_quiet
  grep -q 'Stopped\|finished\|Shut down\|shut down' "$work/data/TENWELLS.out"
  [[ $(grep -c '^HOST=' "$work/daemon.out") == 1 ]]
}

@test "QueueTimeCostsNothingOfTheStartTimeOut" {
  needs_queue
  start_daemon -- -t 5
  occupy
  local before=$SECONDS
  (sleep 10; release) 3>&- &
  master TENWELLS status >"$work/TENWELLS.txt" 2>&1
  ((SECONDS - before >= 9))
  all_is_quiet
}

@test "JobCancelledInTheQueueIsExplained" {
  needs_queue
  start_daemon
  occupy
  local before
  before=$(jobs | wc -l)
  launch TENWELLS
  eventually 20 one_more_job "$before"
  eventually 10 logged "$script: job .* is submitted"
  cancel "$(jobs | sort -n | tail -n 1)"
  local status=0
  wait "$launched" || status=$?
  ((status == 3))
  grep -q 'No host detected' "$work/TENWELLS.txt"
  logged "$script: job .* was ended while it waited"
  not_logged '^HOST='
  release
  all_is_quiet
}

@test "JobOfAControllerThatDiesIsCancelledInTheQueue" {
  needs_queue
  start_daemon
  occupy
  local before
  before=$(jobs | wc -l)
  launch TENWELLS
  eventually 10 logged "$script: job .* is submitted"
  kill -KILL "$(children "$daemon")"
  eventually 10 as_many_jobs_as "$before"
  release
  all_is_quiet
}
as_many_jobs_as() { (($(jobs | wc -l) == $1)); }

@test "JobOfAScriptThatIsEndedIsCancelledInTheQueue" {
  needs_queue
  start_daemon
  occupy
  local before
  before=$(jobs | wc -l)
  launch TENWELLS
  eventually 10 logged "$script: job .* is submitted"
  kill -TERM "$(children "$(children "$daemon")")"
  wait "$launched" || true
  eventually 10 as_many_jobs_as "$before"
  release
  all_is_quiet
}

@test "RunOfAControllerThatDiesIsEnded" {
  start_daemon
  launch TENWELLS
  eventually 30 under_way TENWELLS
  kill -KILL "$(children "$daemon")"
  all_is_quiet
}

@test "GraceTimeEndsWithTheJobThatIgnoresIt" {
  # Ends neither by itself nor with its controller.
  cat >"$work/deaf" <<SIMULATOR
#!/bin/bash
"$work/bin/vksim-node" "\$@" &
while true; do sleep 0.2; done
SIMULATOR
  chmod +x "$work/deaf"
  start_daemon JOBMILL_SIMULATOR "$work/deaf"
  launch TENWELLS
  eventually 30 under_way TENWELLS
  kill -KILL "$(children "$daemon")"
  eventually 30 nothing_of "$work/deaf"
  all_is_quiet
}
nothing_of() { [[ -z $(processes_with "$1") ]]; }

# A simulator whose child ignores SIGTERM and does not end with it.
simulator_with_a_deaf_child() {
  cat >"$work/parent" <<SIMULATOR
#!/bin/bash
setsid bash -c "trap '' TERM; for i in {1..600}; do sleep 0.2; done" "$work/parent" &
"$work/bin/vksim-node" "\$@"
SIMULATOR
  chmod +x "$work/parent"
}

@test "ChildThatOutlivesTheSimulatorIsEndedWithIt" {
  simulator_with_a_deaf_child
  start_daemon JOBMILL_SIMULATOR "$work/parent"
  master TENWELLS status >"$work/TENWELLS.txt" 2>&1
  all_is_quiet
  eventually 30 nothing_of "$work/parent"
}

@test "ChildThatOutlivesTheSimulatorIsEndedWhenTheControllerDies" {
  simulator_with_a_deaf_child
  start_daemon JOBMILL_SIMULATOR "$work/parent"
  launch TENWELLS
  eventually 30 under_way TENWELLS
  kill -KILL "$(children "$daemon")"
  all_is_quiet
  eventually 30 nothing_of "$work/parent"
}

@test "ScriptEndsWithItsSimulator" {
  start_daemon
  launch TENWELLS
  eventually 30 under_way TENWELLS
  kill -KILL "$(simulators)"
  local status=0
  echo data >&7
  wait "$launched" || status=$?
  ((status != 0))
  all_is_quiet
}

@test "SchedulerThatIsDownForAWhileIsWaitedFor" {
  needs_queue
  start_daemon
  occupy
  launch TENWELLS
  eventually 10 logged "$script: job .* is submitted"
  # What is started here must not keep the commands of the run open.
  stop_scheduler 7>&-
  sleep 5
  start_scheduler 7>&-
  release
  eventually 30 under_way TENWELLS
  end_run
  wait "$launched"
  all_is_quiet
}

@test "TwoRunsAtOnceHavePortsOfTheirOwn" {
  start_daemon
  cp "$work/data/TENWELLS.afi" "$work/data/OTHER.afi"
  local first second
  master TENWELLS until 2021-01-01 step monthly >"$work/TENWELLS.txt" 2>&1 3>&- &
  first=$!
  master OTHER until 2021-01-01 step monthly >"$work/OTHER.txt" 2>&1 3>&- &
  second=$!
  wait "$first"
  wait "$second"
  grep -q "Listening on port $comms" "$work"/data/*.out
  grep -q "Listening on port $((comms + 1))" "$work"/data/*.out
  all_is_quiet
}

@test "OutputIsTheOnlyFileBesideTheDataAndFollowsNoLink" {
  start_daemon
  echo treasure >"$work/treasure"
  ln -s "$work/treasure" "$work/data/TENWELLS.out"
  local before
  before=$(cd "$work/data" && echo *)
  master TENWELLS --processes 2 status >"$work/TENWELLS.txt" 2>&1
  all_is_quiet
  grep -q 'Listening on port' "$work/data/TENWELLS.out"
  [[ $(<"$work/treasure") == treasure ]]
  rm -f "$work/data"/*.crvnlog
  [[ $(cd "$work/data" && echo *) == "$before" ]]
}

@test "UnknownQueueIsExplained" {
  needs_queue
  [[ $script != htcondor ]] || skip "HTCondor has no queues"
  start_daemon JOBMILL_QUEUE nosuch
  run master TENWELLS status
  ((status == 3))
  logged "$script: the job is refused: .*"
  not_logged '^HOST='
  all_is_quiet
}

@test "TakenCommsPortIsExplained" {
  start_daemon
  /usr/bin/python3 -c '
import socket, sys, time
taken = []
for offset in range(10):
    try:
        taken.append(socket.create_server(("127.0.0.1", int(sys.argv[1]) + offset)))
    except OSError:
        pass
time.sleep(60)' "$comms" "$work/" 3>&- &
  eventually 5 listens "$comms"
  run master TENWELLS status
  ((status == 3))
  logged "$script: .*port 1?[0-9]+ is taken"
  not_logged '^HOST='
  all_is_quiet
}

@test "BadDeckIsExplained" {
  start_daemon
  printf '[run]\nunits = "FURLONGS"\n' >"$work/data/BAD.afi"
  run master BAD status
  ((status == 3))
  logged 'BAD.afi:2: '
  logged "$script: job .* before the simulator listened"
  all_is_quiet
}

@test "MissingSimulatorIsExplained" {
  start_daemon JOBMILL_SIMULATOR /no/such/simulator
  run master TENWELLS status
  ((status == 3))
  logged "$script: the simulator '/no/such/simulator' cannot be executed on node "
  all_is_quiet
}

@test "SeveralProcessesAreAskedFor" {
  start_daemon
  master TENWELLS --processes 2 status >"$work/TENWELLS.txt" 2>&1
  grep -q 'processes asked for: 2' "$work/data/TENWELLS.out"
  all_is_quiet
}
