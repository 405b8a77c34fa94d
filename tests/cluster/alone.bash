# shellcheck shell=bash disable=SC2034,SC2154  # variables of support.bash, and of the cases
# For cases over a script alone, without a daemon, and over one of the stand-ins.
setup_file() {
  load support.bash
  site_up
}

teardown_file() {
  load support.bash
  site_down
}

setup() {
  load support.bash
  prepare
  comms=$(free_ports)
}

teardown() {
  [[ -n $BATS_TEST_COMPLETED ]] || cat "$work/out" "$work"/data/*.out 2>/dev/null || true
  tidy_up
}

# start_script ROOT [SETTING=VALUE]...
start_script() {
  rm -f "$work/out"
  env HOME=/nowhere USER=nobody LOGNAME=nobody JOBMILL_SIMULATOR="$programs/vksim" \
    JOBMILL_POLL_SECONDS=1 JOBMILL_GRACE_SECONDS=1 "${@:2}" \
    "$root_directory/deploy/scripts/$script" 2 "${data:-$work/data}" "$1" "$comms" "${debug:-0}" \
    >"$work/out" 2>"$work/err" </dev/null &
  launched=$!
}

# A simulator that notes what it was started with.
curious_simulator() {
  cat >"$work/curious" <<SIMULATOR
#!/bin/bash
{ printf '%s\n' "\$@"; echo "cwd \$PWD"; env; } >"$work/seen"
ls -l "/proc/\$\$/fd" >"$work/descriptors"
exec "$programs/vksim" "\$@"
SIMULATOR
  chmod +x "$work/curious"
}

printed() { grep -qsE "$1" "$work/out"; }
runs() { eventually 20 printed '^HOST='; }
submitted() { eventually 10 printed ' is submitted$'; }
# The scheduler's copy of the job.
spooled() { echo "$site_directory/$(sed -n 's/.* job \([0-9]*\) .* is submitted$/\1/p' "$work/out").script"; }
refused() {
  local status=0
  wait "$launched" || status=$?
  ((status == 1))
  never printed '^HOST='
}
ends() {
  kill "$launched"
  eventually 10 gone "$launched"
  eventually 10 no_jobs
}

# simulator LINE...: one that is made of these lines, in $work/simulator.
simulator() {
  printf '%s\n' '#!/bin/bash' "$@" >"$work/simulator"
  chmod +x "$work/simulator"
}
