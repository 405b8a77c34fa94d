#!/usr/bin/env bats
# What others can do who may write to the data directory, or listen on a port of the node.
# shellcheck disable=SC2154  # variables of support.bash
load alone.bash

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
    eventually 5 has_output
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
    eventually 5 has_output
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
