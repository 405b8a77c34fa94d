#!/usr/bin/env bats
# vkgate.exe, and the gate within vkmaster.exe, under wine: the serving gate and the daemon are this machine's.
# shellcheck disable=SC1010,SC2154  # a word of vkmaster; variables of support.bash

setup() {
  load support.bash
  cannot=$(cannot_try)
  [[ -n $cannot || -x $built/vkgate.exe ]] || cannot='needs scripts/build-windows --gate'
  [[ -z $cannot ]] || skip "$cannot"
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-windows.XXXXXX")
}

teardown() {
  stop "${connecting:-}"
  stop "${serving:-}"
  stop_daemon
  rm -rf "${work:-}"
}

# stop SESSION: ends it, when there is one.
stop() {
  local session=$1
  [[ -z $session ]] || { kill -CONT -- "-$session" && kill -- "-$session" && wait "$session"; } 2>/dev/null || true
}

# listening_port LOG: where the gate listens that writes it.
listening_port() {
  eventually 20 grep -qs '"event":"listening"' "$1" >&2
  sed -nE 's/.*"event":"listening","port":([0-9]+).*/\1/p' "$1"
}

# serve [OPTION...]: an authority, Alice's certificate, and a gate that serves her before a daemon.
serve() {
  local authority=("$root_directory/deploy/gate/authority" "$work/Schlüssel")
  start_daemon
  "${authority[@]}" new
  "${authority[@]}" server localhost
  "${authority[@]}" user alice@example.com
  certificates=$work/Schlüssel
  echo 'upn:*@example.com *' >"$work/users"
  setsid "$programs/vkgate" serve --listen 127.0.0.1:0 --to "127.0.0.1:$port" --users "$work/users" \
    --certificate "$certificates/localhost.pem" --key "$certificates/localhost.key" \
    --authority "$certificates/authority.pem" "$@" >"$work/serving" 2>&1 </dev/null 3>&- &
  serving=$!
  serving_port=$(listening_port "$work/serving")
  alice=(--certificate "$certificates/alice@example.com.pem" --key "$certificates/alice@example.com.key"
    --authority "$certificates/authority.pem")
}

# connects PORT: whether somebody listens there.
connects() { (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# connect [OPTION...]: Alice's gate, for masters whose options are then `options`.
connect() {
  setsid timeout 100 wine "$built/vkgate.exe" connect --listen 127.0.0.1:0 --to "localhost:$serving_port" \
    "${alice[@]}" "$@" >"$work/connecting" 2>&1 </dev/null 3>&- &
  connecting=$!
  options=(--port "$(listening_port "$work/connecting")" --path "$data/" --root TWOWELLS)
}

@test "MasterGetsInUnderTheNameOfItsCertificateAlone" {
  serve
  connect
  vkmaster_exe "${options[@]}" --user alice until 30 then data >"$work/through"
  vkmaster_exe --port "$port" --path "$data/" --root TWOWELLS --user alice until 30 then data |
    cmp - "$work/through"
  local status=0
  vkmaster_exe "${options[@]}" --user bob until 30 2>"$work/refusal" || status=$?
  ((status == 3))
  grep -qF "Windows user 'bob' is not proven by the certificate" "$work/refusal"
  [[ $(grep -c 'Path: ' "$work/daemon.out") == 2 ]]
}

# Which Linux process has a connection, wine's table of sockets does not tell.
@test "MasterOfWhomTheSystemDoesNotSayWhoseItIsGetsNothing" {
  serve
  connect
  local status=0
  "$programs/vkmaster" "${options[@]}" --user alice until 30 2>"$work/refusal" || status=$?
  ((status == 3))
  grep -qF "serves its own user's masters alone: it cannot be told whose connection this is" "$work/refusal"
  never grep -q 'Path: ' "$work/daemon.out"
}

@test "RunGoesOnWhenItsLinkHasBroken" {
  serve --silence 2
  connect --silence 2
  coproc master { vkmaster_exe "${options[@]}" --user alice --json 2>"$work/errors"; }
  local line input=${master[1]} process=$master_PID
  echo 'until 30' >&"$input"
  read -r -t 40 line <&"${master[0]}"
  [[ $line == '{"command":"until","time_days":30.0,'* ]] || { echo "$line"; return 1; }
  kill -STOP -- "-$serving"
  eventually 10 grep -q '"event":"broken"' "$work/connecting"
  echo 'until 60' >&"$input"
  kill -CONT -- "-$serving"
  read -r -t 60 line <&"${master[0]}"
  [[ $line == '{"command":"until","time_days":60.0,'* ]]
  exec {input}>&-
  wait "$process"
  eventually 10 grep -q '"resumptions":1' "$work/connecting"
}

@test "MasterGoesThroughTheDoorByItself" {
  serve
  vkmaster_exe --gate "localhost:$serving_port" "${alice[@]}" --path "$data/" --root TWOWELLS --user alice \
    --json until 30 >"$work/out"
  grep -qF '{"command":"until","time_days":30.0,' "$work/out"
  grep -qF '"verdict":"admitted"' "$work/serving"
}

@test "WhatIsWrongWithAFileIsSaid" {
  serve
  local status=0
  windows "$built/vkgate.exe" connect --listen 127.0.0.1:0 --to localhost:1 "${alice[@]:0:2}" \
    --key "$work/Schlüssel/nobody.key" --authority "$certificates/authority.pem" >"$work/out" 2>&1 || status=$?
  ((status != 0))
  grep -qF 'Schlüssel/nobody.key' "$work/out"
}

# Nothing is left that the other gate would keep for hours.
@test "CtrlCEndsTheLinksAtBothSides" {
  serve
  local ours line status=0
  ours=$(free_port)
  # The console is used once the run goes on.
  type_ctrl_c() {
    eventually 20 test -e "$work/running" >&2
    printf '%s\n' 'press \x03' 'see "event":"stopping"' 'end 0'
  }
  timeout 100 "$root_directory/tests/windows/at_console" wine "$built/vkgate.exe" connect \
    --listen "127.0.0.1:$ours" --to "localhost:$serving_port" "${alice[@]}" \
    >"$work/console" 2>&1 3>&- < <(type_ctrl_c 3>&-) &
  local console=$!
  eventually 20 connects "$ours"
  coproc master {
    vkmaster_exe --port "$ours" --path "$data/" --root TWOWELLS --user alice --json 2>"$work/errors"
  }
  local input=${master[1]} process=$master_PID
  echo 'until 30' >&"$input"
  read -r -t 40 line <&"${master[0]}"
  [[ $line == '{"command":"until","time_days":30.0,'* ]] || { echo "$line"; return 1; }
  touch "$work/running"
  wait "$console"
  eventually 10 grep -qF '"how":"an administrator has ended it"' "$work/serving"
  echo 'until 60' >&"$input"
  wait "$process" || status=$?
  exec {input}>&-
  ((status == 4))
  grep -qF 'The daemon ended the connection' "$work/errors"
}
