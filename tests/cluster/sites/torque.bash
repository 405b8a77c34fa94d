# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# Torque's commands over a Slurm of one node.
script=pbs
nodes=1
options=--torque
# shellcheck source=/dev/null
source "$cluster_tests/sites/real-slurm.bash"
cancel() { qdel "$1"; }
