#!/usr/bin/env bats
# What is shipped for a Prometheus and a Grafana.
# shellcheck disable=SC2154  # variables of support.bash

setup() {
  load support.bash
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-monitoring.XXXXXX")
  shipped=$root_directory/deploy/monitoring
}

teardown() {
  [[ -z ${server:-} ]] || kill "$server"
  rm -rf "${work:-}"
}

@test "AlertsFireWhenTheyHaveTo" {
  command -v promtool >/dev/null || skip 'needs promtool'
  cp "$shipped/alerts.yml" "$BATS_TEST_DIRNAME/alerts_test.yml" "$work"
  promtool check rules "$work/alerts.yml"
  promtool test rules "$work/alerts_test.yml"
  # Each rule is tried.
  diff <(sed -n 's/.*- alert: //p' "$work/alerts.yml" | sort) \
    <(sed -nE 's/.*alertname: (\w+).*/\1/p' "$work/alerts_test.yml" | sort -u)
  # The test would see a rule that never fires.
  sed -i 's/jobmill_daemons == 0/jobmill_daemons == 7/' "$work/alerts.yml"
  never promtool test rules "$work/alerts_test.yml" >/dev/null 2>&1
}

@test "LinesForPrometheusAreValid" {
  command -v promtool >/dev/null || skip 'needs promtool'
  sed "s:/usr/share/jobmill/monitoring:$shipped:" "$shipped/prometheus.yml" >"$work/prometheus.yml"
  promtool check config "$work/prometheus.yml"
}

# metrics_of FILE...: the names of ours that they hold.
metrics_of() { grep -ohE '\bjobmill_[a-z_]+' "$@" | sort -u; }

@test "RulesDashboardAndPageNameTheMetricsThatThereAre" {
  command -v python3 >/dev/null || skip 'needs python3'
  python3 -m json.tool "$shipped/dashboard.json" >/dev/null
  "$programs/jobmillctl" serve --listen 127.0.0.1:0 --snapshot "$work/none" >"$work/said" 3>&- 4>&- &
  server=$!
  eventually 5 grep -q Serving "$work/said"
  python3 -c 'import sys, urllib.request; print(urllib.request.urlopen(sys.argv[1]).read().decode())' \
    "$(sed -n 's/Serving on //p' "$work/said")metrics" >"$work/metrics"
  metrics_of "$work/metrics" >"$work/there"
  (($(wc -l <"$work/there") > 15))
  diff "$work/there" <(metrics_of "$root_directory/docs/monitoring.md")
  [[ -z $(metrics_of "$shipped"/{alerts.yml,dashboard.json} | comm -13 "$work/there" -) ]]
  # Nearly all are on the dashboard.
  (($(metrics_of "$shipped/dashboard.json" | wc -l) > 14))
}
