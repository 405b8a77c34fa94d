# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# A stand-in for the scheduler of $dialect.
site_available() { command -v python3 >/dev/null || { echo "not installed: python3"; return 77; }; }
site_up() { "$fake" "$site_directory" "$dialect" "$ask"; }
site_down() { "$ask" "$site_directory" down; }
behave() { "$ask" "$site_directory" set "$1" "$2"; }
behave_again() { "$ask" "$site_directory" reset; }
called() { "$ask" "$site_directory" count; }
submissions() { "$ask" "$site_directory" submissions; }
jobs() { "$ask" "$site_directory" jobs; }
occupy() { behave busy 4; }
release() { behave busy 0; }
stop_scheduler() { behave down 1; }
start_scheduler() { behave down 0; }
cancel() {
  case $dialect in
    slurm) scancel "$1" ;;
    lsf) bkill "$1" ;;
    htcondor) condor_rm "$1" ;;
    *) qdel "$1" ;;
  esac
}
