# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# A Slurm with $nodes nodes, and $options of its helper.
helper=$cluster_tests/schedulers/slurm
site_available() { "$helper" available ${options:-}; }
site_up() { "$helper" up "$site_directory" --nodes "$nodes" ${options:-}; }
site_down() { "$helper" down "$site_directory"; }
jobs() { squeue --noheader --format=%i; }
occupy() {
  occupant=$(sbatch --parsable --nodes="$nodes" --exclusive --output=/dev/null --wrap 'exec sleep 300')
  eventually 10 occupied
}
occupied() { [[ $(squeue --noheader --jobs="$occupant" --format=%T) == RUNNING ]]; }
release() { [[ -z ${occupant:-} ]] || scancel "$occupant"; }
cancel() { scancel "$1"; }
stop_scheduler() { "$helper" stop-controller "$site_directory"; }
start_scheduler() { "$helper" start-controller "$site_directory"; }
