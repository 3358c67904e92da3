#!/bin/bash
# What people write instead of the library: applies a network's addressing, tries its server every
# half second, activates again after the eleventh attempt, and goes on to the other. Prints when a
# search began, when the first server was given up if it was, when it succeeded, in nanoseconds of
# the clock that EPOCHREALTIME tells, and how long the commands took.
#
#   search_script.sh SEARCHES CONNECTION ATTEMPTS PORT SERVER1 ADDRESS1/BITS SERVER2 ADDRESS2/BITS
set -eu
[ $# -eq 8 ] || { sed -n 's/^#   /usage: /p' "$0" >&2; exit 64; }
searches=$1 connection=$2 attempts=$3 port=$4
shift 4

stamp() {
  local now=$EPOCHREALTIME
  stamps+="${now/[.,]/}000 $1"$'\n'
}
try() {
  local uuid attempt now
  now=${EPOCHREALTIME/[.,]/}
  uuid=$(nmcli -g connection.uuid connection show "$connection") || exit 1
  nmcli connection modify uuid "$uuid" ipv4.method manual ipv4.addresses "$2" >/dev/null || exit 1
  nmcli connection up uuid "$uuid" >/dev/null || exit 1
  commands=$((commands + ${EPOCHREALTIME/[.,]/} - now))
  for ((attempt = 0; attempt < attempts; ++attempt)); do
    if nc -z -w 1 "$1" "$port" 2>/dev/null; then
      return 0
    fi
    sleep 0.5
    if ((attempt == 10)); then
      nmcli connection up uuid "$uuid" >/dev/null
    fi
  done
  return 1
}

for ((search = 0; search < searches; ++search)); do
  stamps='' commands=0
  stamp begin
  if ! try "$1" "$2"; then
    stamp dead
    try "$3" "$4"
  fi
  stamp success
  printf '%s%s\n' "$stamps" "${commands}000 commands"
done
