#!/usr/bin/env bash
# Runs hosts with different loops: each makes a link that the local service knows then, and ends by
# itself, also when nobody listens or its arguments are wrong.
#
#     loops_test.sh SERVICE HOST...
set -euo pipefail

service=$1
shift
scratch=$(mktemp -d)
pid=
trap '[[ -z $pid ]] || kill "$pid"; rm -rf "$scratch"' EXIT

fail() {
  echo "loops_test: $*" >&2
  exit 1
}

mkfifo "$scratch/ready"
"$service" --state "$scratch/state" --print-ready >"$scratch/ready" 2>"$scratch/requests" &
pid=$!
read -r ready <"$scratch/ready"
[[ $ready =~ '"page":"'([^\"]+)'"'.*https://127\.0\.0\.1:([0-9]+) ]] || fail "the local service didn't start: $ready"
page=${BASH_REMATCH[1]} port=${BASH_REMATCH[2]}

# Runs a host as an application of that name, and says how it ended.
run() {
  local application=$1 host=$2
  shift 2
  status=0
  XDG_DATA_HOME=$scratch/$application timeout 60 "$host" "$@" >"$scratch/out" 2>"$scratch/err" || status=$?
}

# Status 0 is for those that print a link; the others have an error to tell, in one line.
expect_error() {
  ((status == $1)) || fail "$2 ended with status $status: $(<"$scratch/err")"
  [[ ! -s $scratch/out && $(wc -l <"$scratch/err") == 1 ]] || fail "$2 said $(cat "$scratch/out" "$scratch/err")"
}

for host in "$@"; do
  run "${host##*/}" "$host" "$port" "$scratch/state/ca.pem"
  [[ $status == 0 && ! -s $scratch/err ]] || fail "$host ended with status $status: $(<"$scratch/err")"
  link=$(<"$scratch/out")
  curl -fsS "${page}api/links" | grep -qF "\"short_url\":\"$link\"" || fail "$host made no link: $link"
  run "${host##*/}" "$host" "$port"
  expect_error 2 "$host without a certificate authority"
done

kill "$pid"
wait "$pid" || fail "the local service ended with status $?"
pid=
for host in "$@"; do
  for application in "${host##*/}" new; do
    run "$application" "$host" "$port" "$scratch/state/ca.pem"
    expect_error 1 "$host, where nobody listens,"
  done
done
