#!/usr/bin/env bats
# Carries out the command blocks of docs/clusters.md: those for everybody and those for the site's
# script, with directories and ports of this machine in the place of the page's.
# shellcheck disable=SC2154  # variables of support.bash

setup() {
  load support.bash
  local why
  if ! why=$(site_available); then skip "$why"; fi
  site_up
  prepare
  port=$(free_ports)
  comms=$((port + 1))
}

teardown() {
  [[ -z ${work:-} ]] || {
    [[ -n $BATS_TEST_COMPLETED ]] || cat "$work/commands" "$work/out" 2>/dev/null || true
    tidy_up
    rm -f "/var/log/VKJobmill_$port.log" "/tmp/VKJobmill_$port.log"
  }
  site_down
}

# blocks WORD: the blocks that begin with "```sh WORD".
blocks() {
  awk -v begin="$(printf '```sh%s' "${1:+ $1}")" '
    $0 == "```" { inside = 0 }
    inside { print }
    $0 == begin { inside = 1 }' "$root_directory/docs/clusters.md" |
    sed -e "s|/opt/jobmill|$work/opt/jobmill|g" -e "s|/data/run|$work/data|g" \
      -e "s| -p 5000 | -p $port -o $comms |" -e "s|--port 5000|--port $port|" \
      -e "s| 9001 | $((comms + 5)) |" -e "s|scripts/SCRIPT|scripts/$script|"
}

# The page ends a script after some seconds. A busy machine may need longer for the host line, so here
# the script is ended as soon as it has printed that, or after a minute.
timeout() {
  local tenths
  rm -f "$work/host"
  "${@:2}" >"$work/host" 2>&1 &
  for ((tenths = 0; tenths < 600; ++tenths)); do
    ! grep -qs '^HOST=' "$work/host" || break
    sleep 0.1
  done
  kill $!
  wait $! || true
  cat "$work/host"
}

@test "CommandBlocksOfTheDocumentationWork" {
  cmake --install "$programs/.." --prefix "$work/opt/jobmill" >"$work/install.txt"
  cp "$examples/TENWELLS.afi" "$work/data/CASE.afi"
  if [[ $script == ssh ]]; then
    mkdir -p "$work/home/.ssh"
    cp "$site_directory/ssh_config" "$work/home/.ssh/jobmill"
  fi
  {
    echo 'set -e'
    echo "trap 'kill \$(jobs -p)' EXIT"
    blocks ''
    # Simulators on this machine, where the name of their node leads.
    echo "sed -i 's/0\\.0\\.0\\.0/${address:-127.0.0.1}/' $work/opt/jobmill/bin/vksim-node"
    # Whoever types is slower than a daemon that starts.
    echo "work=$work"
    declare -f listens timeout
    blocks "$script" | sed "s|^vkmaster |until listens $port; do sleep 0.1; done; &|"
    blocks any
    # The script of one's own.
    echo "echo MINE"
    echo "timeout 5 $work/opt/jobmill/share/jobmill/scripts/mine 1 $work/data CASE $((comms + 6)) 0 || true"
  } >"$work/commands"
  [[ $(blocks "$script" | wc -l) -ge 8 ]]
  [[ $(blocks any | wc -l) -ge 20 ]]
  HOME=$work/home PATH=$work/opt/jobmill/bin:$PATH \
    bash "$work/commands" >"$work/out" 2>&1 3>&- 4>&-
  grep -q 'Host detected: ' "$work/out"
  grep -q 'open wells  *10' "$work/out"
  # By the daemon, by hand, and by the script of one's own.
  [[ $(grep -c '^HOST=' "$work/out") == 3 ]]
  sed -n '/^MINE$/,$p' "$work/out" | grep -qx "HOST=\($(uname -n)\|localhost\)"
  grep -q "Listening on port $comms" "$work/data/CASE.out" || grep -q "Listening on port $((comms + 6))" "$work/data/CASE.out"
  eventually 20 no_jobs
  eventually 20 no_leftovers
}
