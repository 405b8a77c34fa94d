# shellcheck shell=bash
# For tests in bats.

# eventually SECONDS COMMAND...: tries until the command succeeds; says so when it never does. The
# machine may have a lot else to do: three times the time that it should take.
eventually() {
  local end=$((SECONDS + 3 * $1))
  shift
  until "$@"; do
    if ((SECONDS > end)); then
      echo "never true: $*"
      return 1
    fi
    sleep 0.3
  done
}

# `! command` alone fails no test.
never() { if "$@"; then return 1; fi; }
