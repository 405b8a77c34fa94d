#!/usr/bin/env bash
# What the distribution scripts have in common; sourced by them, not run.
#
# A script sets `name`, which begins each of its lines in the jobmill's log. Those for clusters
# define what their scheduler needs and call run_on_cluster with the jobmill's arguments:
#
#   needed             words: the scheduler's commands
#   submit             submits $job_file for $slots processors, under the name $job_name; sets $job.
#                      The file is there for this machine and until the end of the run only: the
#                      scheduler has to take its text along. Not 0: nothing is known to be submitted
#   refused            whether $complaint says that the same again would be refused again
#   query              asks for $job and sets $state (waiting, held, running, ended; absent when the
#                      scheduler does not know it), $reason, and $node, the first of its nodes.
#                      Not 0: unknown
#   find_job           sets $job to the job named $job_name, or to nothing. Not 0: unknown
#   cancel             cancels $job. 0 also when there is nothing left to cancel
#   scheduler_settings reads further settings
#   details            may say more in $reason about a job that has ended
#   node_address       may print the address of $node as the scheduler knows it
#
# All of them call the scheduler by `ask`. The last three may be left out.

# Variables are shared with the scripts, and numbers are set by name:
# shellcheck disable=SC2034,SC2154
set -uo pipefail
job_name=''

# One line in the jobmill's log. Beyond 1,023 characters the jobmill would take it in pieces, one of
# which could begin like a host line.
say() {
  local text=$*
  printf '%s: %.500s\n' "$name" "${text//[[:cntrl:]]/ }"
}

# What went wrong, in the jobmill's log; no host line follows.
give_up() {
  say "$*"
  exit 1
}

# The last words of the file that is standard input, in the jobmill's log.
show_end() { tail -c 2000 | tail -n 5 | cut -c 1-300 | sed 's/^/  /'; }

# Prints account and inode of each socket of this machine that listens on TCP port $1.
listeners() {
  local port
  printf -v port '%04X' "$1"
  sed -nE "s/^ *[0-9]+: [0-9A-F]+:$port [0-9A-F]+:0000 0A [^ ]+ [^ ]+ [^ ]+ +([0-9]+) +[0-9]+ ([0-9]+) .*/\1 \2/p" \
    /proc/net/tcp /proc/net/tcp6 2>/dev/null
}

# Whether something on this machine listens on TCP port $1.
listens() { [[ -n $(listeners "$1") ]]; }

# Whether process $1 is of this run: it has the run's mark in its environment, or descends from
# process $2.
of_this_run() {
  local process=$1 stat
  ! grep -qszxF -- "JOBMILL_RUN=$mark" "/proc/$process/environ" || return 0
  while ((process > 1 && process != $2)); do
    read -r stat 2>/dev/null <"/proc/$process/stat" || return
    read -r _ process _ <<<"${stat##*) }"  # behind the name: state, parent
  done
  ((process == $2))
}

# Whether the run whose simulator is process $2 listens on TCP port $1: 0; 1 when nobody does. 2 when
# it is somebody else, who would get the run: another account, which is then $stranger, or this one
# for another purpose. Where none of the account's processes can be seen to have the socket, the
# account is enough.
simulator_listens() {
  local account inode files file
  stranger=
  while read -r account inode; do
    [[ -n $account ]] || return 1
    stranger=$account
    [[ $account == "$EUID" ]] || return 2
    files=$(find /proc/[0-9]*/fd -lname "socket:\[$inode\]" 2>/dev/null)
    for file in $files; do
      file=${file#/proc/}
      ! of_this_run "${file%%/*}" "$2" || continue 2
    done
    [[ -z $files ]] || return 2
  done <<<"$(listeners "$1")"
}

# Sets $parent to the parent of this process. It changes when the parent dies, whoever gets its
# number afterwards.
read_parent() {
  local stat
  read -r stat <"/proc/$$/stat"
  read -r _ parent _ <<<"${stat##*) }"  # behind the name: state, parent
}

running() { kill -0 "$1" 2>/dev/null; }

# Sends signal $1 to the processes of the run: the group $group, a negative number, or none, and those
# that have left it but have the mark of the run. Fails when there are none.
signal_run() {
  # shellcheck disable=SC2046,SC2086
  kill "-$1" -- $group $(grep -lszxF -- "JOBMILL_RUN=$mark" /proc/[0-9]*/environ | tr -cd '0-9\n') 2>/dev/null
}

# Waits up to $1 seconds for all of them to end.
run_ends_within() {
  local fifths
  for ((fifths = 0; fifths < $1 * 5; ++fifths)); do
    signal_run 0 || return 0
    sleep 0.2
  done
  ! signal_run 0
}

# Ends the run. What ignores SIGTERM, be it the simulator or something that it has started, is killed.
stop_run() {
  signal_run TERM
  run_ends_within 5 || signal_run KILL
}

# Closes what the shell was given beyond standard input, output and error.
close_descriptors() {
  local descriptor
  for descriptor in "/proc/$$/fd"/*; do
    descriptor=${descriptor##*/}
    # 255 is where the shell reads this script.
    if ((descriptor > 2 && descriptor != 255)); then eval "exec $descriptor>&-"; fi
  done
}

# The jobmill changes its account, not these.
use_account() {
  local entry
  if entry=$(getent passwd "$(id -u)"); then
    IFS=: read -r USER _ _ _ _ HOME _ <<<"$entry"
    LOGNAME=$USER
    export USER HOME LOGNAME
  fi
}

# Leaves only absolute directories in the search paths. Anything else, such as the nothing beside a
# colon too many, has programs and libraries looked for in the data directory, where others may write.
use_absolute_paths() {
  local variable text directory kept
  for variable in PATH LD_LIBRARY_PATH; do
    text=${!variable:-}
    [[ $variable == PATH ]] || text=${text//;/:}
    kept=
    while IFS= read -rd : directory; do
      [[ $directory != /* ]] || kept+=${kept:+:}$directory
    done <<<"$text:"
    [[ -z $text ]] || printf -v "$variable" %s "${kept:-/}"
  done
}

# read_arguments "$@": what the jobmill passes.
read_arguments() {
  (($# == 5)) || give_up "expects 5 arguments: processes, data path, root name, port, debug flag"
  processes=$1 data=$2 root=$3 port=$4 debug=$5
  # The simulator would take it for an option.
  [[ $root != -* ]] || give_up "the root name '$root' begins with a hyphen"
  [[ $data == /* ]] || data=$PWD/$data
  output=$root.out
  use_absolute_paths
}

# Enters directory $1 of this one. Others may be able to write here, and to put a link or another
# directory in its place: it has to be here, of this account, and closed to everybody else.
enter() {
  local above
  above=$(stat -c %d:%i .)
  cd -P -- "$1" && [[ -O . && $(stat -c %a .) == *700 && $(stat -c %d:%i ..) == "$above" ]]
}

# Makes and enters a directory of the run's own in the data directory. Nobody else can put anything
# into it, or replace what is there, so what the run creates is created here, and what it reads is
# read from here. It can be renamed by others: it is always `.`, never a path. $mark is the run's own.
make_private() {
  local readable=${root//[^A-Za-z0-9]/} made
  # With what mktemp adds 15 characters, beginning with a letter: some schedulers take no more as a name.
  if ! made=$(mktemp -d "vk_${readable:0:6}_XXXXX") || ! enter "$made" || [[ -n $(ls -A) ]]; then
    give_up "account $(id -un) cannot make a directory of its own in '$data'"
  fi 2>/dev/null
  job_name=$made
  read -r mark </proc/sys/kernel/random/uuid
}

# Removes that directory. By its name nothing is removed but what is empty.
remove_private() {
  [[ -n $job_name ]] || return 0
  rm -f report out
  cd -P .. && rmdir -- "$job_name" 2>/dev/null
  job_name=
}

# Sets $arguments to those of the simulator.
simulator_arguments() {
  arguments=("$data" "$root" --port "$port" --processes "$processes")
  [[ -z $debug || $debug == 0 ]] || arguments+=(--debug)
}

# Sets $simulator to the program to run; an installed vksim is found from the scripts beside it.
find_simulator() {
  simulator=${JOBMILL_SIMULATOR:-}
  local directory
  if [[ -z $simulator ]]; then
    for directory in "$called_in" "$here" "$here/../../../bin"; do
      simulator=$directory/vksim
      [[ -x $simulator ]] && return
    done
    simulator=$(command -v vksim) ||
      give_up "no simulator: JOBMILL_SIMULATOR is not set, and vksim is neither beside this script nor in PATH"
  fi
  # Others may be able to write where it would be looked for.
  [[ $simulator == /* || $simulator != */* ]] ||
    give_up "JOBMILL_SIMULATOR is '$simulator', but has to be an absolute path or a name in PATH"
}

# Why a value may look strange.
prepended() {
  [[ $1 != *:* ]] || echo "; the environment file puts its values in front of those that are set already"
}

# number VARIABLE SETTING DEFAULT LOWEST HIGHEST: sets VARIABLE to the number that SETTING gives.
number() {
  local text=${!2:-$3}
  if ! [[ $text =~ ^[0-9]{1,9}$ ]] || ((10#$text < $4 || 10#$text > $5)); then
    give_up "$2 is '$text', but has to be a whole number from $4 to $5$(prepended "$text")"
  fi
  printf -v "$1" %d "$((10#$text))"
}

# word VARIABLE SETTING: the same for a name.
word() {
  local text=${!2:-}
  [[ $text =~ ^[A-Za-z0-9_.@,+/-]*$ ]] || give_up "$2 is '$text', which is not a name$(prepended "$text")"
  printf -v "$1" %s "$text"
}

# The settings of all clusters. Names are explained in docs/clusters.md.
read_settings() {
  number poll_seconds JOBMILL_POLL_SECONDS 10 1 3600
  number command_seconds JOBMILL_COMMAND_SECONDS 30 1 600
  number queue_seconds JOBMILL_QUEUE_SECONDS 0 0 99999999
  number silence_seconds JOBMILL_SILENCE_SECONDS 3600 1 99999999
  number listen_seconds JOBMILL_LISTEN_SECONDS 300 1 99999999
  number grace_seconds JOBMILL_GRACE_SECONDS 60 0 99999999
  word queue JOBMILL_QUEUE
  wall_time=${JOBMILL_WALL_TIME:-}
  [[ -z $wall_time || $wall_time =~ ^[0-9]{1,4}:[0-5][0-9]:[0-5][0-9]$ ]] ||
    give_up "JOBMILL_WALL_TIME is '$wall_time', but has to be hours:minutes:seconds, such as 12:00:00"
  # Blanks cannot be in a value; commas and colons are in many flags.
  IFS=';' read -ra flags <<<"${JOBMILL_SUBMIT_FLAGS:-}"
  find_simulator
  slots=$((processes > 0 ? processes : 1))
}

# ask COMMAND...: a command of the scheduler, bounded in time. What it printed is in $answer; when it
# fails, $complaint says why in one line. It reads $input, when that names a file. Files rather than
# pipes: what a command leaves running in the background would keep a pipe open. It runs in the one
# directory that every node has: many schedulers start the job where it was submitted.
ask() {
  (cd / && LC_ALL=C exec timeout --kill-after=2 "$command_seconds" "$@") <"${input:-/dev/null}" \
    >"$scratch/answer" 2>"$scratch/complaint" {never}>&-
  local status=$?
  answer=$(<"$scratch/answer")
  complaint=
  ((status)) || return 0
  complaint=$(<"$scratch/complaint")
  case $status in
    124 | 137) complaint="$1 did not answer within $command_seconds s" ;;
    *) [[ -n $complaint ]] || complaint=${answer:-$1 ended with status $status} ;;
  esac
  complaint=${complaint//$'\n'/ }
  return "$status"
}

# Waits $1 seconds or until a signal comes, without starting a process.
idle() { read -rt "$1" -u "$never" _ || true; }

# Whether nobody waits for this run any more.
abandoned() {
  [[ -z $signalled ]] || return 0
  read_parent
  [[ $parent != "$controller" ]]
}

# The next interval of a series of failures.
back_off() {
  local longest=$((poll_seconds > 300 ? poll_seconds : 300))
  interval=$((interval * 2 > longest ? longest : interval * 2))
}

# Cancels the job, for as long as the scheduler may be silent.
cancel_job() {
  # The controller waits until this output is closed, and for nothing else.
  exec </dev/null >/dev/null 2>&1
  [[ $state != ended ]] || return
  local since=$SECONDS interval=$poll_seconds
  while true; do
    if [[ -z $job ]]; then
      # The submission may have gone through though it failed.
      if find_job && [[ -z $job ]]; then return; fi
    fi
    if [[ -n $job ]]; then
      ! cancel || return
      # Some fail for a job that has just ended.
      if query && [[ $state == absent || $state == ended ]]; then return; fi
    fi
    ((SECONDS - since < silence_seconds)) || return
    idle "$interval"
    back_off
  done
}

# Ends a run that nobody waits for.
leave() {
  cancel_job
  exit 143
}

# What became of the job, and the end of the script.
explain() {
  say "$*"
  cancel_job
  exit 1
}

clean_up() {
  # The report is also the job's permission to start: see write_job.
  remove_private
  [[ -z ${scratch:-} ]] || rm -rf -- "$scratch"
}

# The variables of the jobmill and its environment file, for the job: schedulers differ in what they
# pass on. Left out are those that belong to a machine, a session or a scheduler.
exported_variables() {
  local variable
  for variable in $(compgen -e); do
    case $variable in
      HOME | USER | LOGNAME | SHELL | MAIL | PWD | OLDPWD | SHLVL | _ | TERM | HOSTNAME | HOST) ;;
      TMPDIR | TMP | TEMP | DISPLAY | SSH_* | XDG_* | DBUS_* | BASH* | SLURM* | SBATCH* | PBS* | SGE* | LSB* | LSF* | LS_* | *CONDOR*) ;;
      JOB_ID | JOB_NAME | QUEUE | NSLOTS | NHOSTS | ENVIRONMENT) ;;
      *) printf 'export %s=%q\n' "$variable" "${!variable}" ;;
    esac
  done
}

# Writes the job. It reports to the script through a file in the private directory: the host, its
# addresses, why the simulator does not start, or that it listens.
write_job() {
  local arguments
  make_private
  echo "$mark" >report
  rm -f -- "../$output" 2>/dev/null || give_up "cannot write '${data%/}/$output'"
  simulator_arguments
  job_file=$scratch/$job_name.job
  {
    printf '#!/bin/bash\n# A run of the jobmill. Removed when it is over.\n'
    exported_variables
    declare -f listeners listens of_this_run simulator_listens close_descriptors enter \
      signal_run run_ends_within stop_run
    printf '%s=%q\n' data "$data" output "$output" job_name "$job_name" mark "$mark" \
      simulator "$simulator" port "$port" listen_seconds "$listen_seconds"
    printf 'arguments=('
    printf '%q ' "${arguments[@]}"
    printf ')\n'
    cat <<'JOB'
tell() { echo "$*" >>report; }
tell_when_it_listens() {
  local pid=$1 fifths
  for ((fifths = 0; fifths < listen_seconds * 5; ++fifths)); do
    sleep 0.2
    simulator_listens "$port" "$pid"
    case $? in
      0) tell listening && return ;;
      2) tell stranger "$(id -nu "$stranger" 2>/dev/null || echo "$stranger")" && return ;;
    esac
    kill -0 "$pid" 2>/dev/null || return
  done
}
cd -- "$data" || exit 1
# No report: nobody waits for this run any more. More than the mark: the scheduler starts it once more.
{ enter "$job_name" && [[ $(<report) == "$mark" ]]; } 2>/dev/null || exit 0
exec </dev/null >>out 2>&1
close_descriptors
tell node "$(uname -n)"
for address in $(hostname -I 2>/dev/null); do
  [[ $address == *:* ]] || { tell address "$address"; break; }
done
# It keeps its name here, too, so that its end can be shown; where links cannot lead from directory to
# directory, it moves. Neither follows what is there.
{ ln -fT out "../$output" || mv -fT out "../$output"; } 2>/dev/null || { tell unwritable; exit 1; }
program=$(command -v -- "$simulator") && [[ -x $program && ! -d $program ]] || { tell missing; exit 1; }
if listens "$port"; then tell taken; exit 1; fi
# Grandchildren, for which the simulator need not wait. The second ends what the simulator leaves behind;
# not every scheduler sees what has a session of its own, and so the process has one, too.
(tell_when_it_listens $$ </dev/null >/dev/null 2>&1 &)
(setsid bash -c "$(declare -f signal_run run_ends_within stop_run)
  cd /; tail --pid=$$ -s 2 -f /dev/null; group='' mark=$mark; stop_run" </dev/null >/dev/null 2>&1 &)
cd -P .. || exit 1
JOBMILL_RUN=$mark exec "$program" "${arguments[@]}"
JOB
  } >"$job_file" || give_up "cannot write '$job_file'"
  chmod 700 "$job_file"
}

# Sets $told_node, $told_address, $verdict and $stranger from what the job has told.
read_report() {
  local key value
  told_node='' told_address='' verdict='' stranger=''
  while read -r key value; do
    case $key in
      node) told_node=$value ;;
      address) told_address=$value ;;
      "$mark") ;;
      *) verdict=$key stranger=$value ;;
    esac
  done <report
}

submit_job() {
  local interval=$poll_seconds attempt missed
  for ((attempt = 1; attempt <= 4; ++attempt)); do
    submit && return
    ! refused || give_up "the job is refused: $complaint"
    ((attempt < 4)) || break
    say "the job could not be submitted ($complaint), trying again"
    # It may have been, and must not be a second time. A scheduler may need a moment until it knows it.
    for ((missed = 0; missed < 2;)); do
      idle "$interval"
      back_off
      ! abandoned || leave
      if ! find_job; then
        ((++attempt < 4)) || break 2
      elif [[ -n $job ]]; then
        return 0
      else
        ((++missed))
      fi
    done
  done
  explain "the job could not be submitted: $complaint"
}

# Asks for the job when it is time to. Sets $state; 'unknown' when nothing is known.
poll_job() {
  state=unknown reason=
  if query; then
    if [[ $state == absent ]]; then
      # Some schedulers need a moment until they know a job, or pass it from list to list.
      if ((++absences < 2)); then state=unknown; else state=ended; fi
    else
      absences=0
    fi
    ((failures == 0)) || say "answers again"
    failures=0 interval=$poll_seconds answered=$SECONDS
  else
    state=unknown
    ((failures++)) || say "no answer about job $job ($complaint), asking again"
    back_off
  fi
  next_poll=$((SECONDS + interval))
}

# Why the simulator does not run, when the job has told so.
explain_verdict() {
  local where=${told_node:-its node}
  case $verdict in
    taken) explain "port $port is taken on node $where (job $job)" ;;
    stranger) explain "port $port was taken on node $where by a process of account $stranger that is none of the run's (job $job)" ;;
    missing) explain "the simulator '$simulator' cannot be executed on node $where (job $job)" ;;
    unwritable) explain "cannot write '${data%/}/$output' on node $where (job $job)" ;;
  esac
}

explain_end() {
  details
  local after=
  [[ -z $reason ]] || after=": $reason"
  if [[ -z $told_node ]]; then
    ((ran)) && explain "job $job ended before it could start the simulator$after; do the nodes see '$data'?"
    explain "job $job was ended while it waited$after"
  fi
  [[ ! -e out ]] || show_end <out
  explain "job $job ended on node $told_node before the simulator listened$after; see '${data%/}/$output'"
}

scheduler_settings() { :; }
details() { :; }
node_address() { :; }

# As the jobmill resolves it: to an IPv4 address, whatever addresses this machine has. getent's ahostsv4
# finds none where only the loopback interface is up; its ahosts may leave out IPv4 where only IPv6 is,
# and its hosts shows IPv6 alone where there are both.
resolves() {
  local found
  found=$(timeout 10 getent ahosts "$1"; timeout 10 getent hosts "$1")
  grep -qE '^[0-9.]+ ' <<<"$found"
}

# Sets $host to how the jobmill reaches the node: a name that it can resolve, else an address.
choose_host() {
  for host in "$node" "$(node_address)" "$told_node" "$told_address"; do
    # Every machine is localhost to itself.
    [[ $host != localhost* || $told_node == "$(uname -n)" ]] || continue
    [[ -z $host ]] || ! resolves "$host" || return 0
  done
  explain "neither a name nor an address of node ${node:-$told_node} is known here (job $job)"
}

# Waits until the simulator listens. Queue time is nothing to the jobmill before the host line.
await_simulator() {
  local waiting_since=$SECONDS running_since=-1 shown='' asked_last
  answered=$SECONDS next_poll=$SECONDS interval=$poll_seconds failures=0 absences=0 ran=0 node=
  while true; do
    ! abandoned || leave
    read_report
    [[ -z $verdict || $verdict == listening ]] || explain_verdict
    asked_last=false
    if [[ $verdict == listening && -z $node ]] || ((SECONDS >= next_poll)); then
      poll_job
      asked_last=true
    fi
    # Told by the job itself; the scheduler may be down just now.
    if [[ $verdict == listening && $state != ended ]]; then
      choose_host
      return
    fi
    if $asked_last; then
      case $state in
        waiting)
          if [[ -n $reason && $reason != "$shown" ]]; then
            shown=$reason
            say "job $job waits: $reason"
          fi
          ;;
        held) explain "job $job is held${reason:+: $reason}" ;;
        running)
          ((ran)) || say "job $job runs${node:+ on node $node}"
          ran=1
          ;;
        ended)
          read_report
          [[ -z $verdict || $verdict == listening ]] || explain_verdict
          explain_end
          ;;
      esac
    fi
    [[ -z $told_node ]] || ran=1
    if ((ran)); then
      ((running_since >= 0)) || running_since=$SECONDS
      ((SECONDS - running_since < listen_seconds)) ||
        explain "the simulator did not listen on port $port within $listen_seconds s; see '${data%/}/$output' (job $job)"
    else
      ((queue_seconds == 0 || SECONDS - waiting_since < queue_seconds)) ||
        explain "job $job has waited for $queue_seconds s and is given up"
      ((SECONDS - answered < silence_seconds)) ||
        explain "nothing was heard of job $job for $silence_seconds s, it is given up"
    fi
    idle 0.5
  done
}

# Whether a link of this account to the simulator looks alive. An end that the controller has seen, or
# will see as soon as it looks, is another state.
link_looks_alive() {
  local remote
  printf -v remote '%04X' "$port"
  grep -qsE "^ *[0-9]+: [0-9A-F:]+ [0-9A-F]+:$remote 01 [^ ]+ [^ ]+ [^ ]+ +$EUID " /proc/net/tcp
}

# The job has ended: so does the script, by which its controller can know it. A node that died has not
# closed the link, and the controller would wait for ever for an answer.
follow_the_job() {
  if [[ -z $over ]]; then
    over=$SECONDS
    details
    [[ -z $reason || ! -e out ]] || say "job $job has ended: $reason" >>out
  fi
  if abandoned || ! link_looks_alive; then exit 0; fi
  ((SECONDS - over < grace_seconds)) || { kill "$controller"; exit 1; }
}

# Stays with the run: without its controller the simulator would hold its node, and its licence, for
# as long as it likes.
watch() {
  local orphaned=-1 over=''
  absences=0 failures=0 interval=$poll_seconds next_poll=$((SECONDS + poll_seconds))
  while true; do
    idle 1
    [[ -z $signalled ]] || leave
    if ((orphaned < 0)) && abandoned; then
      orphaned=$SECONDS
      next_poll=$((SECONDS + 1))
    fi
    if ((SECONDS >= next_poll)); then
      poll_job
      case $state in
        ended) follow_the_job ;;
        # Put back into the queue: its controller would not find it again.
        waiting | held) cancel_job; exit 1 ;;
        # Some schedulers lose sight of a job for a while.
        running) over= ;;
      esac
    fi
    if ((orphaned >= 0 && SECONDS - orphaned >= grace_seconds)); then
      cancel_job
      exit 1
    fi
  done
}

run_on_cluster() {
  read_parent
  controller=$parent
  # It was gone before it could be looked at.
  ((controller != 1)) || exit 1
  exec 2>&1
  close_descriptors
  read_arguments "$@"
  local command
  use_account
  cd -- "$HOME" 2>/dev/null || cd /
  cd -- "$data" 2>/dev/null || give_up "there is no data directory '$data' that account $(id -un) may enter"
  read_settings
  for command in $needed; do
    command -v "$command" >/dev/null || give_up "there is no $command in PATH ($PATH)"
  done
  scheduler_settings

  signalled='' job='' complaint='' answer='' state='' reason=''
  trap clean_up EXIT
  trap 'signalled=yes' TERM INT HUP
  # A closed pipe is noticed by the controller that is gone. Not ignored: programs would inherit that.
  trap : PIPE
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/jobmill.XXXXXX") || give_up "cannot write to ${TMPDIR:-/tmp}"
  # Nothing is ever written there: something to wait on.
  mkfifo "$scratch/never" && exec {never}<>"$scratch/never"
  write_job
  submit_job
  say "job $job ($job_name) is submitted"
  await_simulator
  echo "HOST=$host"
  # Nothing is read behind the host line: whoever goes on writing there stops for ever.
  exec </dev/null >/dev/null 2>&1
  watch
}
