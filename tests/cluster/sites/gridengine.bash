# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# A Grid Engine of one host.
script=gridengine
helper=$cluster_tests/schedulers/gridengine
site_available() { "$helper" available; }
site_up() { "$helper" up "$site_directory"; }
site_down() { "$helper" down "$site_directory"; }
jobs() { qstat | awk 'NR > 2 { print $1 }'; }
occupy() {
  occupant=$(qsub -terse -b y -shell n -pe smp 4 -o /dev/null -j y sleep 300)
  eventually 15 occupied
}
occupied() { qstat | awk -v id="$occupant" '$1 == id && $5 == "r" { found = 1 } END { exit !found }'; }
release() { [[ -z ${occupant:-} ]] || qdel "$occupant" >/dev/null; }
cancel() { qdel "$1"; }
stop_scheduler() { "$helper" stop-controller "$site_directory"; }
start_scheduler() { "$helper" start-controller "$site_directory"; }
settings() { echo 'JOBMILL_PARALLEL_ENVIRONMENT smp'; }
