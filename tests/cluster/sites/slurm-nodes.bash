# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
# A Slurm of three nodes whose names do not resolve.
script=slurm
nodes=3
address=127.0.0.1
# shellcheck source=/dev/null
source "$cluster_tests/sites/real-slurm.bash"
