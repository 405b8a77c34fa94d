# shellcheck shell=sh
# describe PID: says whose connection a process of the jobmill, the controller of a run, serves: account,
# since when, and the script, which is a process of its own, with what it was given. What it says of the
# script is the account's own word.
describe() {
  ticks=$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d ' ' -f 20)
  [ -n "$ticks" ] || return 0
  began=$(($(sed -n 's/^btime //p' /proc/stat) + ticks / $(getconf CLK_TCK)))
  printf 'process %s of %s since %s' "$1" "$(stat -c %U "/proc/$1" 2>/dev/null)" \
    "$(date -d "@$began" '+%F %T')"
  script=$(cut -d ' ' -f 1 "/proc/$1/task/$1/children" 2>/dev/null)
  [ -z "$script" ] ||
    printf ' (the controller; its script is process %s: %s)' "$script" "$(tr '[:cntrl:]' ' ' <"/proc/$script/cmdline" 2>/dev/null | cut -c -200)"
}
