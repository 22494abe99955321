#!/usr/bin/env bash
# Has a desktop open links with the application that is registered for them: the first start stays,
# and tells where each leads, also those that later starts were given.
#
#     desktop_test.sh SERVICE LINK-MAKER APPLICATION DESKTOP-FILE
set -euo pipefail

if [[ -z ${DESKTOP_TEST_BUS-} ]]; then
  for program in dbus-run-session desktop-file-install gio; do
    command -v "$program" >/dev/null || { echo "Left out: there is no $program" && exit 77; }
  done
  DESKTOP_TEST_BUS=1 exec dbus-run-session -- "$0" "$@"
fi

service=$1 maker=$2 application=$3 desktop_file=$4
scratch=$(mktemp -d)
pid=
quit() { gapplication action com.example.shop quit; }
trap 'quit 2>/dev/null || :; [[ -z $pid ]] || kill "$pid"; rm -rf "$scratch"' EXIT

fail() {
  echo "desktop_test: $*" >&2
  exit 1
}

mkfifo "$scratch/ready" "$scratch/said"
"$service" --state "$scratch/state" --print-ready >"$scratch/ready" 2>"$scratch/requests" &
pid=$!
read -r ready <"$scratch/ready"
[[ $ready =~ https://127\.0\.0\.1:([0-9]+) ]] || fail "the local service didn't start: $ready"
port=${BASH_REMATCH[1]}

export XDG_DATA_HOME="$scratch/data home" XDG_CONFIG_HOME=$scratch/config
made=$(timeout 60 "$maker" "$port" "$scratch/state/ca.pem")
link="shop:${made#https:}?via=poster&a=%41%2F"

desktop-file-validate "$desktop_file"
desktop-file-install --dir="$XDG_DATA_HOME/applications" --rebuild-mime-info-cache --set-key=Exec \
  --set-value="\"$application\" --port $port --ca \"$scratch/state/ca.pem\" %u" "$desktop_file"

expect() {
  local line
  read -r -t 60 line <&3 || fail "nothing was said, rather than: $1"
  [[ $line == "$1" ]] || fail "\"$line\" was said, rather than: $1"
}
expect_opened() { expect "$1 leads to https://shop.example/shoes"; }

# A new installation, which hears of the link before the library is initialized.
exec 4<>"$scratch/said"
gio open "$link" >&4 2>&1 4<&-
exec 3<"$scratch/said" 4<&-  # ends with the application
expect_opened "$link"

for later in "$link#later" "${link%%\?*}" "SHOP${link#shop}"; do
  gio open "$later"
  expect_opened "$later"
done
said=$(timeout 60 "$application" "$made" 2>&1) || fail "a later start ended with status $?"
[[ -z $said ]] || fail "a later start said $said"
expect_opened "$made"

gio open "shop://go.shop.example/nowhere"
expect "shop: shop://go.shop.example/nowhere: Invalid response from server"

status=0
said=$(timeout 60 "$application" "no link" 2>&1) || status=$?
[[ $status == 2 && $said == 'shop: "no link" is no link' ]] || fail "no link: status $status, $said"

quit
ended=0
read -r -t 60 <&3 || ended=$?
((ended == 1)) || fail "the application didn't end, or said $REPLY"
kill "$pid"
wait "$pid" || fail "the local service ended with status $?"
pid=
