#!/usr/bin/env bats
# The shipped packet filter as it is shipped, in a network of the suite's own: the daemon's machine,
# two masters' machines in the network of masters that the file names, and a stranger outside of it.
# Each case sees first that without the filter what it is about would get through.
# shellcheck disable=SC2016,SC2154  # texts for other shells; variables of setup_file

setup_file() {
  load support.bash
  export holder='' cannot=''
  cannot=$(cannot_start nft ip unshare nsenter python3)
  [[ -z $cannot ]] || return 0
  # This process holds the namespaces: with its end all that runs and is made in them is gone. The
  # daemon's log and the names of the networks are not those of the system.
  unshare --net --mount --pid --fork --kill-child --mount-proc bash -c '
    mount -t tmpfs none /var/log && mount -t tmpfs none /run && ip link set lo up && echo made &&
      exec sleep 200' >"$BATS_FILE_TMPDIR/made" 2>"$BATS_FILE_TMPDIR/refused" 3>&- 4>&- &
  holder=$!
  until [[ -s $BATS_FILE_TMPDIR/made ]]; do
    kill -0 "$holder" 2>/dev/null || {
      cannot="cannot make a network of its own: $(cat "$BATS_FILE_TMPDIR/refused")"
      return 0
    }
    sleep 0.1
  done
  inside=$(pgrep -P "$holder")
  export inside
  on daemon nft list tables >"$BATS_FILE_TMPDIR/tables" 2>&1 || {
    cannot="no packet filter here: $(cat "$BATS_FILE_TMPDIR/tables")"
    return 0
  }
  connect_machines
  PATH=$programs:$PATH on daemon "$programs/vkjobmill.exe" -u -p 5000 -o 9050 -s "$root_directory/deploy/scripts/local" \
    >"$BATS_FILE_TMPDIR/daemon.out" 2>&1 3>&- 4>&- &
  # In the simulators' place; and what might come to listen on the daemon's port besides.
  on daemon python3 -c '
import selectors, socket
ports = selectors.DefaultSelector()
for server in (socket.create_server(("::", 9001), family=socket.AF_INET6, dualstack_ipv6=True),
               socket.create_server(("::", 5000), family=socket.AF_INET6)):
    ports.register(server, selectors.EVENT_READ)
while True:
    for key, _ in ports.select():
        connection, _ = key.fileobj.accept()
        connection.sendall(b"3")
        connection.close()' >"$BATS_FILE_TMPDIR/listener.out" 2>&1 3>&- 4>&- &
  eventually 10 reaches daemon 127.0.0.1 5000
  eventually 10 reaches daemon ::1 5000
  eventually 10 reaches alice 2001:db8::1 9001
}

teardown_file() {
  [[ -z $holder ]] || { kill -KILL "$holder" && wait "$holder"; } 2>/dev/null || true
}

setup() {
  load support.bash
  [[ -z $cannot ]] || skip "$cannot"
  on daemon nft flush ruleset
}

# on MACHINE COMMAND...
on() {
  local command=(nsenter --target "$inside" --net --mount --pid --)
  if [[ $1 != daemon ]]; then command+=(ip netns exec "$1"); fi
  "${command[@]}" "${@:2}"
}

connect_machines() {
  local machine address
  on daemon sysctl -q -w net.ipv6.conf.default.accept_dad=0
  on daemon ip link add lan type bridge
  on daemon ip link set lan up
  on daemon ip address add 192.0.2.1/28 dev lan
  on daemon ip address add 198.51.100.1/24 dev lan
  on daemon ip address add 2001:db8::1/64 dev lan nodad
  while read -r machine address; do
    on daemon ip netns add "$machine"
    on daemon ip link add "$machine" type veth peer name cable netns "$machine"
    on daemon ip link set "$machine" master lan up
    on "$machine" ip link set cable up
    on "$machine" ip address add "$address" dev cable
    on "$machine" ip address add "2001:db8::${address: -4:1}/64" dev cable nodad
  done <<'MACHINES'
alice 192.0.2.2/28
bob 192.0.2.3/28
stranger 198.51.100.4/24
MACHINES
}

# reaches MACHINE ADDRESS PORT [COMMAND...]: whether somebody answers there, when COMMAND asks.
reaches() {
  on "$1" "${@:4}" timeout 1 bash -c 'exec 3<>"/dev/tcp/$0/$1" && read -r -N 1 <&3' "$2" "$3" 2>/dev/null
}
nobody=(setpriv --reuid 65534 --regid 65534 --clear-groups)

# load_filter [DEFINITION VALUE]...: with some definitions changed, as an administrator does.
load_filter() {
  local filter=$BATS_TEST_TMPDIR/filter
  cp "$root_directory/deploy/nftables/jobmill.nft" "$filter"
  while (($#)); do
    grep -q "^define $1 = " "$filter"
    sed -i "s|^define $1 = .*|define $1 = $2|" "$filter"
    shift 2
  done
  on daemon nft --file "$filter"
}

# take_connections MACHINE NUMBER: as many as it gets of so many, until give_back.
take_connections() {
  coproc on "$1" bash -c '
    for ((taken = 0; taken < $0; ++taken)); do
      exec {connection}<>/dev/tcp/192.0.2.1/5000 || break
      read -r -N 1 <&"$connection"
    done 2>/dev/null
    echo "$taken"
    read -r' "$2" 3>&- 4>&-
  # shellcheck disable=SC2034  # the number is what the caller looks at
  read -r taken <&"${COPROC[0]}"
}
give_back() {
  local held=$COPROC_PID
  echo >&"${COPROC[1]}"
  wait "$held"
}

@test "WholeRunGetsThrough" {
  load_filter
  cp "$root_directory/deploy/examples/TENWELLS.afi" "$BATS_TEST_TMPDIR"
  on alice "$programs/vkmaster" --host 192.0.2.1 --port 5000 --path "$BATS_TEST_TMPDIR/" \
    --root TENWELLS --user alice --no-progress until +30 >"$BATS_TEST_TMPDIR/out" 2>&1 || {
    cat "$BATS_TEST_TMPDIR/out" "$BATS_FILE_TMPDIR/daemon.out"
    return 1
  }
  reaches bob 192.0.2.1 5000
}

@test "StrangersGetNoConnection" {
  reaches stranger 198.51.100.1 5000
  reaches stranger 192.0.2.1 5000 || on stranger ip route add 192.0.2.0/28 dev cable
  reaches stranger 192.0.2.1 5000
  load_filter
  never reaches stranger 198.51.100.1 5000
  never reaches stranger 192.0.2.1 5000
}

@test "Ipv6GetsNoConnectionToTheMastersPort" {
  reaches alice 2001:db8::1 5000
  load_filter
  never reaches alice 2001:db8::1 5000
  never reaches stranger 2001:db8::1 5000
}

@test "EachSourceHasAHundredConnectionsAndTakesNoneOfTheOthers" {
  take_connections alice 103
  ((taken == 103))
  give_back
  load_filter
  take_connections alice 103
  ((taken == 100))
  never reaches alice 192.0.2.1 5000
  reaches bob 192.0.2.1 5000
  give_back
  eventually 5 reaches alice 192.0.2.1 5000
}

@test "OrdinaryAccountsAreKeptFromTheMastersPort" {
  local address
  for address in 127.0.0.1 127.1.2.3 192.0.2.1 198.51.100.1; do
    reaches daemon "$address" 5000 "${nobody[@]}"
  done
  reaches daemon ::1 5000 "${nobody[@]}"
  load_filter
  for address in 127.0.0.1 127.1.2.3 192.0.2.1 198.51.100.1; do
    never reaches daemon "$address" 5000 "${nobody[@]}"
    reaches daemon "$address" 5000
  done
  never reaches daemon ::1 5000 "${nobody[@]}"
  reaches daemon ::1 5000
}

@test "NamedAccountReachesTheMastersPort" {
  load_filter local_accounts '{ root, nobody }'
  reaches daemon 127.0.0.1 5000 "${nobody[@]}"
  never reaches daemon 127.0.0.1 5000 setpriv --reuid 65533 --regid 65533 --clear-groups
}

# Some sockets send without anybody whom the filter could ask for, as this one does when its program has
# gone before all that it wrote was read.
@test "PacketsOfNobodyAreKeptFromTheMastersPort" {
  left_over() { [[ -n $(on daemon ss -Htn state fin-wait-1 dport = :5050) ]]; }
  on daemon python3 -c '
import os, socket, time
server = socket.create_server(("127.0.0.1", 5050))
if os.fork() == 0:
    os.setresuid(65534, 65534, 65534)
    client = socket.socket()  # create_connection() loads what this account may not be able to read
    client.connect(("127.0.0.1", 5050))
    client.setblocking(False)
    try:
        while True:
            client.send(bytes(65536))
    except BlockingIOError:
        os._exit(0)
connection, _ = server.accept()
time.sleep(60)' 3>&- 4>&- &
  eventually 5 left_over
  load_filter master_port 5050
  eventually 5 never left_over
}

@test "CommsPortsAreForThisMachine" {
  reaches alice 192.0.2.1 9001
  reaches alice 2001:db8::1 9001
  load_filter
  never reaches alice 192.0.2.1 9001
  never reaches alice 2001:db8::1 9001
  never reaches stranger 198.51.100.1 9001
  # A controller has the account of its run.
  reaches daemon 127.0.0.1 9001 "${nobody[@]}"
  reaches daemon ::1 9001 "${nobody[@]}"
}

@test "NamedDaemonsReachTheCommsPorts" {
  load_filter daemons '{ 192.0.2.2 }'
  reaches alice 192.0.2.1 9001
  never reaches bob 192.0.2.1 9001
  never reaches alice 2001:db8::1 9001
  load_filter daemons6 '{ 2001:db8::2 }'
  never reaches alice 192.0.2.1 9001
  reaches alice 2001:db8::1 9001
  never reaches bob 2001:db8::1 9001
}

@test "GatesAccountAloneReachesTheMastersPort" {
  local work=$BATS_TEST_TMPDIR certificates=$BATS_TEST_TMPDIR/certificates gate=(setpriv --reuid 61003 --regid 61003 --clear-groups)
  local authority=("$root_directory/deploy/gate/authority" "$certificates")
  "${authority[@]}" new
  "${authority[@]}" server 192.0.2.1
  "${authority[@]}" user alice
  # Where another account gets at them.
  on daemon install -D -m 644 -t /run/gate "$certificates"/{192.0.2.1,authority}.pem
  on daemon install -m 600 -o 61003 -t /run/gate "$certificates/192.0.2.1.key"
  on daemon "${gate[@]}" "$programs/vkgate" serve --listen 192.0.2.1:5443 --to 127.0.0.1:5000 \
    --certificate /run/gate/192.0.2.1.pem --key /run/gate/192.0.2.1.key \
    --authority /run/gate/authority.pem >"$work/serve" 2>&1 3>&- 4>&- &
  on alice ip link set lo up
  on alice "$programs/vkgate" connect --listen 127.0.0.1:5000 --to 192.0.2.1:5443 \
    --certificate "$certificates/alice.pem" --key "$certificates/alice.key" \
    --authority "$certificates/authority.pem" >"$work/connect" 2>&1 3>&- 4>&- &
  eventually 10 grep -q listening "$work/serve"
  eventually 10 grep -q listening "$work/connect"
  reaches daemon 127.0.0.1 5000
  load_filter masters '{ 127.0.0.1 }' local_accounts '{ 61003 }'
  never reaches alice 192.0.2.1 5000
  never reaches daemon 127.0.0.1 5000
  never reaches daemon 127.0.0.1 5000 "${nobody[@]}"
  cp "$root_directory/deploy/examples/TENWELLS.afi" "$work"
  on alice "$programs/vkmaster" --host 127.0.0.1 --port 5000 --path "$work/" --root TENWELLS --user alice \
    --no-progress until +30 >"$work/out" 2>&1 || {
    cat "$work"/{out,connect,serve}
    return 1
  }
  grep -q '"event":"admitted".*"claimed":"alice"' "$work/serve"
}

@test "LoadedAgainItReplacesItself" {
  load_filter masters '{ 192.0.2.3 }'
  never reaches alice 192.0.2.1 5000
  load_filter
  reaches alice 192.0.2.1 5000
  rules() { on daemon nft list ruleset | grep -v 'elements = '; }
  rules >"$BATS_TEST_TMPDIR/once"
  load_filter
  rules | diff "$BATS_TEST_TMPDIR/once" -
}
