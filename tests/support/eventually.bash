# shellcheck shell=bash
# For tests in bats.

# pause SECONDS: sleeps without starting a program. Nothing is ever written to the pipe that is waited on.
pause() {
  [[ -n ${never_written:-} ]] || exec {never_written}<> <(:)
  read -rt "$1" -u "$never_written" _ || true
}

# eventually SECONDS COMMAND...: tries until the command succeeds; says so when it never does. The
# machine may have a lot else to do: three times the time that it should take.
eventually() {
  # What is tried again and again is left out of what bats does around every line of a case.
  local - end=$((SECONDS + 3 * $1))
  set +T
  shift
  until "$@"; do
    if ((SECONDS > end)); then
      echo "never true: $*"
      return 1
    fi
    pause 0.3
  done
}

# `! command` alone fails no test.
never() { if "$@"; then return 1; fi; }
