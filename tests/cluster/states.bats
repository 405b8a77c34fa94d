#!/usr/bin/env bats
# What a scheduler can do to a script, over every stand-in: the script alone, without a daemon.
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
  comms=$(free_ports)
}

teardown() {
  [[ -z ${work:-} ]] || {
    [[ -n $BATS_TEST_COMPLETED ]] || cat "$work/out" "$work"/data/*.out 2>/dev/null || true
    behave_again
    tidy_up
  }
}

# start_script [SETTING=VALUE]...: as the jobmill does; what it prints is in $work/out.
start_script() {
  rm -f "$work/out"
  env HOME=/nowhere USER=nobody LOGNAME=nobody JOBMILL_SIMULATOR="$programs/vksim" \
    JOBMILL_POLL_SECONDS=1 JOBMILL_GRACE_SECONDS=1 JOBMILL_COMMAND_SECONDS=5 "$@" \
    "$root_directory/deploy/scripts/$script" 1 "$work/data" TENWELLS "$comms" 0 \
    >"$work/out" 2>"$work/err" </dev/null 3>&- 4>&- &
  launched=$!
}

printed() { grep -qE "$1" "$work/out"; }
submitted() { eventually 10 printed ' is submitted$'; }
runs() { eventually 20 printed '^HOST='; }
host() { sed -n 's/^HOST=//p' "$work/out"; }
ends() { eventually 20 gone "$launched"; }
fails() {
  local status=0
  wait "$launched" || status=$?
  ((status == 1))
  never printed '^HOST='
  no_leftovers
  eventually 10 no_jobs
}

@test "JobThatNeverStartsIsGivenUp" {
  behave delay -1
  start_script JOBMILL_QUEUE_SECONDS=2
  fails
  printed 'has waited for 2 s and is given up$'
}

@test "JobThatStartsLateIsWaitedFor" {
  behave delay 3
  local before=$SECONDS
  start_script
  runs
  ((SECONDS - before >= 2))
}

@test "JobThatDiesAtOnceIsExplained" {
  behave stillborn 1
  start_script
  fails
  printed "^$script: job .* was ended while it waited"
}

@test "HeldJobIsExplainedAndCancelled" {
  behave held 1
  start_script
  fails
  printed "^$script: job .* is held: .+"
}

@test "CommandsThatFailAreRepeated" {
  behave delay 2
  start_script
  submitted
  behave fail 2
  runs
  [[ $(jobs | wc -l) == 1 ]]
}

@test "CommandThatHangsSaysNothingAboutTheJob" {
  behave delay 2
  start_script
  submitted
  behave hang 1
  runs
}

@test "SubmissionThatFailsIsRepeated" {
  # One more when the script has to find the dialect out.
  if [[ $script == pbs ]]; then behave fail 2; else behave fail 1; fi
  start_script
  runs
  printed 'could not be submitted .*, trying again$'
  [[ $(jobs | wc -l) == 1 ]]
}

@test "SubmissionThatNeverSucceedsIsExplained" {
  behave down 1
  start_script JOBMILL_SILENCE_SECONDS=1
  local status=0
  wait "$launched" || status=$?
  ((status == 1))
  printed 'the job could not be submitted: .+'
  behave down 0
  no_jobs
}

@test "SubmissionWithoutAnAnswerIsFoundByItsName" {
  behave lost 1
  start_script
  runs
  [[ $(jobs | wc -l) == 1 ]]
}

@test "JobThatIsNotKnownYetIsWaitedFor" {
  occupy
  start_script
  submitted
  local before
  # Never two times in a row: when the third query has begun, the second has had its answer.
  for _ in 1 2; do
    before=$(called)
    behave late 1
    eventually 10 three_queries_since "$before"
  done
  release
  runs
  [[ $(jobs | wc -l) == 1 ]]
}

three_queries_since() { (($(called) >= $1 + 3)); }

@test "SubmissionWithoutAnAnswerThatIsNotKnownYetIsNotRepeated" {
  behave lost 1
  behave late 1
  local before
  before=$(submissions)
  start_script
  runs
  (($(submissions) == before + 1))
}

@test "SilentSchedulerEndsTheWait" {
  behave delay -1
  start_script JOBMILL_SILENCE_SECONDS=3
  submitted
  behave down 1
  local status=0
  wait "$launched" || status=$?
  ((status == 1))
  printed 'nothing was heard of job .* for 3 s'
  # Nobody waits for it any more: when the scheduler comes back, it ends as soon as it starts.
  behave down 0
  no_leftovers
}

@test "RunThatIsPutBackIntoTheQueueIsCancelled" {
  start_script
  runs
  behave requeue 1
  ends
  behave requeue 0
  no_leftovers
  eventually 10 no_jobs
}

@test "JobThatIsNotKnownAnyMoreHasEnded" {
  behave forget 1
  start_script
  runs
  kill -KILL "$(simulators)"
  ends
  no_leftovers
}

@test "SchedulerThatIsDownEndsNoRun" {
  start_script
  runs
  behave down 1
  sleep 3
  kill -0 "$launched"
  behave down 0
  kill -KILL "$(simulators)"
  ends
}

@test "OneQueryIsMadeInAnInterval" {
  behave delay -1
  start_script
  submitted
  local before since=$SECONDS
  before=$(called)
  sleep 4
  # Waking up may take longer where others compute.
  (($(called) - before <= SECONDS - since + 1))
}

@test "FirstNodeOfEveryHostListIsTaken" {
  local list here
  here=$(uname -n)
  while read -r list; do
    behave hosts "${list//HERE/$here}"
    start_script
    runs
    [[ $(host) == "$here" ]]
    kill "$launched"
    ends
    eventually 10 no_jobs
  done < <(host_lists)
}
host_lists() {
  case $dialect in
    slurm) echo HERE ;;
    openpbs) printf '%s\n' 'HERE/0*2+other/0*2' 'HERE/0' ;;
    torque) printf '%s\n' 'HERE/0-3+other/0-3' "HERE/0$(printf '+HERE/%s' {1..40})" ;;
    lsf) printf '%s\n' '2*HERE:3*other' 'HERE:HERE:other' ;;
    gridengine) printf '%s\n' 'a.rather.long.name.of.a.queue@HERE' ;;
    htcondor) printf '%s\n' 'slot1_2@HERE' 'HERE' ;;
  esac
}

@test "NodeWhoseNameDoesNotResolveIsReachedAllTheSame" {
  case $dialect in
    gridengine) behave hosts all.q@no-such-node.invalid ;;
    *) behave hosts no-such-node.invalid ;;
  esac
  behave address 127.0.0.1
  start_script
  runs
  case $dialect in
    slurm | htcondor) [[ $(host) == 127.0.0.1 ]] ;;
    # No address from the scheduler: the name that the node bears.
    *) [[ $(host) == "$(uname -n)" ]] ;;
  esac
}

@test "NodeWithoutAKnownNameIsReachedByItsFirstAddressOfTheRightKind" {
  printf '#!/bin/sh\necho no-such-node.invalid\n' >"$work/bin/uname"
  printf '#!/bin/sh\necho fe80::1 127.0.0.2 127.0.0.3\n' >"$work/bin/hostname"
  chmod +x "$work"/bin/*
  case $dialect in
    gridengine) behave hosts all.q@no-such-node.invalid ;;
    *) behave hosts no-such-node.invalid ;;
  esac
  start_script PATH="$work/bin:$PATH"
  runs
  [[ $(host) == 127.0.0.2 ]]
}

@test "CancellationIsRepeatedUntilTheSchedulerAnswers" {
  start_script
  runs
  behave down 1
  kill "$launched"
  sleep 3
  behave down 0
  ends
  no_jobs
}

@test "ScriptDiesWithoutItsControllerAndTakesTheJobAlong" {
  # The stand-in for the controller.
  cat >"$work/controller" <<'CONTROLLER'
"$@" >"$out" 2>&1 &
sleep 60
CONTROLLER
  out=$work/out JOBMILL_SIMULATOR=$programs/vksim JOBMILL_POLL_SECONDS=1 JOBMILL_GRACE_SECONDS=1 \
    bash "$work/controller" "$root_directory/deploy/scripts/$script" 1 "$work/data" TENWELLS "$comms" 0 \
    </dev/null 3>&- 4>&- &
  launched=$!
  runs
  kill -KILL "$launched"
  eventually 10 no_jobs
  eventually 10 no_leftovers
}
