# shellcheck shell=bash disable=SC2034,SC2154,SC2086  # variables are shared with the cases
dialect=slurm
script=slurm
# shellcheck source=/dev/null
source "$cluster_tests/sites/fake.bash"
