#!/usr/bin/env bash
# What the distribution scripts have in common; sourced by them, not run.
#
# A script sets `name`, which begins each of its lines in the jobmill's log. Those for clusters
# define what their scheduler needs and call run_on_cluster with the jobmill's arguments:
#
#   needed             words: the scheduler's commands
#   submit             submits $job_file for $slots processors, under the name $job_name; sets $job.
#                      The scheduler has to take a copy: only this machine sees the file, and only
#                      until the end of the run. Fails when it is not known to be submitted
#   refused            whether $complaint says that the same again would be refused again
#   query              asks for $job and sets $state (waiting, held, running, ended; absent when the
#                      scheduler does not know it), $reason, and $node, the first of its nodes.
#                      Fails when the state cannot be learnt
#   find_job           sets $job to the job named $job_name, or to nothing when there is none. Fails
#                      when that cannot be learnt
#   cancel             cancels $job. Succeeds when there is nothing left to cancel, too
#   scheduler_settings reads further settings
#   details            may say more in $reason about a job that has ended
#   node_address       may print the address of $node as the scheduler knows it
#
# All of them call the scheduler by `ask`. A script may leave out the last three.

# Variables are shared with the scripts, and numbers are set by name:
# shellcheck disable=SC2034,SC2154
set -uo pipefail
job_name=''

# Prints one line for the jobmill's log. It is cut short: a line of more than 1,023 characters is
# read in pieces, one of which could begin like a host line.
say() {
  local text=$*
  printf '%s: %.500s\n' "$name" "${text//[[:cntrl:]]/ }"
}

# Ends the script without a host line; the jobmill's log says why.
give_up() {
  say "$*"
  exit 1
}

# Prints the last lines of standard input, which has to be a file, for the jobmill's log.
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
    read -r _ process _ <<<"${stat##*) }"  # after the name: state, parent
  done
  ((process == $2))
}

# Who listens on TCP port $1. 0: the run whose simulator is process $2. 1: nobody. 2: somebody else,
# to whom the controller would connect; it is another account, which $stranger names, or a process of
# this account that is not of the run. A socket of this account for which no process can be found
# counts as the run's.
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

# Sets $parent to the number of this process's parent. When the parent dies the number becomes another
# one for good, even if a new process gets the old one.
read_parent() {
  local stat
  read -r stat <"/proc/$$/stat"
  read -r _ parent _ <<<"${stat##*) }"  # after the name: state, parent
}

running() { kill -0 "$1" 2>/dev/null; }

# Sends signal $1 to the processes of the run: to the process group $group (a negative number, or
# nothing) and to those that have left it but carry the mark of the run. Fails when there are none.
signal_run() {
  # shellcheck disable=SC2046,SC2086
  kill "-$1" -- $group $(grep -lszxF -- "JOBMILL_RUN=$mark" /proc/[0-9]*/environ | tr -cd '0-9\n') 2>/dev/null
}

# Waits up to $1 seconds for all processes of the run to end.
run_ends_within() {
  local fifths
  for ((fifths = 0; fifths < $1 * 5; ++fifths)); do
    signal_run 0 || return 0
    sleep 0.2
  done
  ! signal_run 0
}

# Ends the processes of the run, and kills those that ignore SIGTERM, be it the simulator or something
# that it has started.
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

# Sets USER, HOME and LOGNAME to the account of the run: the jobmill changes its account and leaves
# these variables as they were.
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

# read_arguments "$@": takes over what the jobmill passes.
read_arguments() {
  (($# == 5)) || give_up "expects 5 arguments: processes, data path, root name, port, debug flag"
  processes=$1 data=$2 root=$3 port=$4 debug=$5
  # The simulator would take such a root name for an option.
  [[ $root != -* ]] || give_up "the root name '$root' begins with a hyphen"
  [[ $data == /* ]] || data=$PWD/$data
  output=$root.out
  use_absolute_paths
}

# Enters directory $1, which is in the current one. Where others may write here, too, they may have put
# a link or another directory in its place. So it has to be here, to belong to this account, and to be
# closed to everybody else.
enter() {
  local above
  above=$(stat -c %d:%i .)
  cd -P -- "$1" && [[ -O . && $(stat -c %a .) == *700 && $(stat -c %d:%i ..) == "$above" ]]
}

# Makes and enters a private directory of the run in the data directory. Nobody else can put anything
# into it or replace what is there, so the run makes its files here and reads them from here. Others
# may rename the directory, so it is always `.`, never a path. Sets $mark to a text that no other run
# has.
make_private() {
  local readable=${root//[^A-Za-z0-9]/} made
  # The directory's name is the job's as well. It has 15 characters and begins with a letter: some
  # schedulers take no other names.
  if ! made=$(mktemp -d "vk_${readable:0:6}_XXXXX") || ! enter "$made" || [[ -n $(ls -A) ]]; then
    give_up "account $(id -un) cannot make a directory of its own in '$data'"
  fi 2>/dev/null
  job_name=$made
  read -r mark </proc/sys/kernel/random/uuid
}

# Removes the private directory. What has its name by now may be another one: it is removed only if it
# is empty.
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
  # A relative path would be looked for in the data directory, where others may be able to write.
  [[ $simulator == /* || $simulator != */* ]] ||
    give_up "JOBMILL_SIMULATOR is '$simulator', but has to be an absolute path or a name in PATH"
}

# Prints a hint for the message that $1 cannot be the value of a setting.
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

# word VARIABLE SETTING: sets VARIABLE to the name that SETTING gives.
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
  # Semicolons separate the flags: no value can have blanks, and many flags have commas or colons.
  IFS=';' read -ra flags <<<"${JOBMILL_SUBMIT_FLAGS:-}"
  find_simulator
  slots=$((processes > 0 ? processes : 1))
}

# ask COMMAND...: runs a command of the scheduler, bounded in time. What it printed is in $answer; when
# it fails, $complaint says why in one line. Its standard input is the file $input, if that is set. It
# prints into files rather than pipes: what it leaves running in the background would keep a pipe open.
# It runs in /, which every node has: many schedulers start a job in the directory that it was
# submitted from.
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

# Whether the run's controller has gone, or a signal has asked the script to end.
abandoned() {
  [[ -z $signalled ]] || return 0
  read_parent
  [[ $parent != "$controller" ]]
}

# Doubles $interval after a failure, up to five minutes or, if that is longer, the interval of polls.
back_off() {
  local longest=$((poll_seconds > 300 ? poll_seconds : 300))
  interval=$((interval * 2 > longest ? longest : interval * 2))
}

# Cancels the job. Tries it again for as long as the scheduler may be silent.
cancel_job() {
  # Closes this output: until that the controller waits, and for nothing else.
  exec </dev/null >/dev/null 2>&1
  [[ $state != ended ]] || return
  local since=$SECONDS interval=$poll_seconds
  while true; do
    if [[ -z $job ]]; then
      # The submission has failed, but the scheduler may have the job all the same.
      if find_job && [[ -z $job ]]; then return; fi
    fi
    if [[ -n $job ]]; then
      ! cancel || return
      # Some schedulers fail to cancel a job that has just ended.
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
  # This removes the report, without which the job does not start any more: see write_job.
  remove_private
  [[ -z ${scratch:-} ]] || rm -rf -- "$scratch"
}

# Prints commands that set the variables of the jobmill and its environment file, for the job, because
# schedulers differ in what they pass on. Leaves out the variables of a machine, a session or a
# scheduler.
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
# Without a report nobody waits for this run any more. With more in it than the mark, the scheduler is
# starting the job a second time.
{ enter "$job_name" && [[ $(<report) == "$mark" ]]; } 2>/dev/null || exit 0
exec </dev/null >>out 2>&1
close_descriptors
tell node "$(uname -n)"
for address in $(hostname -I 2>/dev/null); do
  [[ $address == *:* ]] || { tell address "$address"; break; }
done
# Gives the output its name in the data directory. It keeps its name here, too, for the script to show
# its last lines; on a file system without such links it moves. Neither follows a link of that name.
{ ln -fT out "../$output" || mv -fT out "../$output"; } 2>/dev/null || { tell unwritable; exit 1; }
program=$(command -v -- "$simulator") && [[ -x $program && ! -d $program ]] || { tell missing; exit 1; }
if listens "$port"; then tell taken; exit 1; fi
# Two processes beside the simulator. They are grandchildren, because it would not wait for children
# that it does not know. The second ends what the simulator leaves behind in sessions that not every
# scheduler sees; it has a session of its own, so that the scheduler does not end it before that.
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
    # The job may have been submitted all the same, and must not be a second time. A scheduler may need
    # a moment until it knows a new job, so the job has to be missing twice.
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

# Asks for the job and says when to ask next. Sets $state; 'unknown' when nothing is known.
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

# Ends the script with the reason, if the job has told why the simulator does not run.
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

# Whether $1 has an IPv4 address here, which is all that the jobmill looks for. None of getent's look-ups
# is enough: ahostsv4 finds nothing where only the loopback interface is up, ahosts may leave out IPv4
# where this machine has IPv6 only, and hosts shows IPv6 alone for a name that has both.
resolves() {
  local found
  found=$(timeout 10 getent ahosts "$1"; timeout 10 getent hosts "$1")
  grep -qE '^[0-9.]+ ' <<<"$found"
}

# Sets $host to how the jobmill reaches the node: a name that it can resolve, else an address.
choose_host() {
  for host in "$node" "$(node_address)" "$told_node" "$told_address"; do
    # Every node calls itself localhost. That leads to the node only if it is this machine.
    [[ $host != localhost* || $told_node == "$(uname -n)" ]] || continue
    [[ -z $host ]] || ! resolves "$host" || return 0
  done
  explain "neither a name nor an address of node ${node:-$told_node} is known here (job $job)"
}

# Waits until the simulator listens. That may take as long as the queue does: the jobmill waits for the
# host line without limit.
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
    # The job itself has told that, so the scheduler need not answer just now.
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

# Whether a connection of this account to the simulator's port is established (01). It is in another
# state as soon as the controller has seen its end, or can see it.
link_looks_alive() {
  local remote
  printf -v remote '%04X' "$port"
  grep -qsE "^ *[0-9]+: [0-9A-F:]+ [0-9A-F]+:$remote 01 [^ ]+ [^ ]+ [^ ]+ +$EUID " /proc/net/tcp
}

# The job has ended, and so the script does. When the node has died, nothing has closed the connection,
# and the controller would wait for an answer for ever: it is ended after the grace time.
follow_the_job() {
  if [[ -z $over ]]; then
    over=$SECONDS
    details
    [[ -z $reason || ! -e out ]] || say "job $job has ended: $reason" >>out
  fi
  if abandoned || ! link_looks_alive; then exit 0; fi
  ((SECONDS - over < grace_seconds)) || { kill "$controller"; exit 1; }
}

# Stays until the run has ended. Without this, a simulator whose controller has gone would hold its
# node and its licence for as long as it likes.
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
        # The job was put back into the queue. Its controller would not find it again.
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
  # The controller was gone before this script could look at it.
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
  # When nobody reads this output, the controller has gone, and that is noticed by its number. SIGPIPE is
  # caught rather than ignored: the programs that are started here would inherit ignoring it.
  trap : PIPE
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/jobmill.XXXXXX") || give_up "cannot write to ${TMPDIR:-/tmp}"
  # A pipe to which nothing is ever written, for `idle` to wait on.
  mkfifo "$scratch/never" && exec {never}<>"$scratch/never"
  write_job
  submit_job
  say "job $job ($job_name) is submitted"
  await_simulator
  echo "HOST=$host"
  # Nobody reads on after the host line: a process that goes on printing would fill the pipe and stop
  # for ever.
  exec </dev/null >/dev/null 2>&1
  watch
}
