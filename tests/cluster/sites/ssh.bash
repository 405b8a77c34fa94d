# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# Two names for this machine, served by an sshd of our own on loopback.
script=ssh
queues=false
address=127.0.0.1
site_available() {
  if [[ ! -x /usr/sbin/sshd ]] || ! command -v ssh ssh-keygen >/dev/null; then
    echo 'not installed: openssh-server or openssh-client'
    return 77
  fi
}
site_up() {
  local port d=$site_directory
  port=$(free_ports)
  mkdir -p "$d" /run/sshd
  ssh-keygen -q -t ed25519 -N '' -f "$d/host_key"
  ssh-keygen -q -t ed25519 -N '' -f "$d/user_key"
  cp "$d/user_key.pub" "$d/authorized_keys"
  cat >"$d/sshd_config" <<CONF
ListenAddress 127.0.0.1
Port $port
HostKey $d/host_key
AuthorizedKeysFile $d/authorized_keys
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
UsePAM no
StrictModes no
PidFile none
LogLevel ERROR
CONF
  echo "[127.0.0.1]:$port $(cat "$d/host_key.pub")" >"$d/known_hosts"
  cat >"$d/ssh_config" <<CONF
Host nodea nodeb
  HostName 127.0.0.1
  Port $port
  IdentityFile $d/user_key
  IdentitiesOnly yes
  UserKnownHostsFile $d/known_hosts
CONF
  echo "$port" >"$d/port"
  start_scheduler
}
# Its process, as long as it is this one: the number may be somebody else's by now.
sshd_pid() {
  local pid
  read -r pid 2>/dev/null <"$site_directory/sshd.pid" &&
    grep -qsaF "$site_directory/sshd_config" "/proc/$pid/cmdline" && echo "$pid"
}
start_scheduler() {
  [[ -z $(sshd_pid) ]] || return 0
  setsid /usr/sbin/sshd -D -e -f "$site_directory/sshd_config" </dev/null >>"$site_directory/log" 2>&1 3>&- 4>&- &
  echo $! >"$site_directory/sshd.pid"
  eventually 5 listens "$(<"$site_directory/port")"
}
stop_scheduler() {
  [[ -z $(sshd_pid) ]] || kill "$(sshd_pid)" 2>/dev/null || true
  rm -f "$site_directory/sshd.pid"
}
site_down() { stop_scheduler; }
jobs() {
  local pid
  for pid in $(simulators); do echo "$pid"; done
}
occupy() { :; }
release() { :; }
cancel() { kill "$1"; }
settings() {
  echo "JOBMILL_NODES nodea,nodeb"
  echo "JOBMILL_SUBMIT_FLAGS -F;$site_directory/ssh_config"
}
