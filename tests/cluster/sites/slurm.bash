# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# A Slurm of one node.
script=slurm
nodes=1
# shellcheck source=/dev/null
source "$cluster_tests/sites/real-slurm.bash"
