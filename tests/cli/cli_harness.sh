# SPDX-License-Identifier: MIT
# What the command-line end-to-end scripts share; sourced, not run.
#
#   source cli_harness.sh NAME "$@"     NAME names the scratch directory
#
# Takes the program (after any emulator) from the arguments into the array
# ws (its path made absolute, since the checks run in a scratch directory),
# sets emulated=1 under an emulator, moves into a scratch directory removed
# at exit, and defines pass, fail, run and finish.

harness_name=$1
shift
if [ $# -lt 1 ]; then
  echo "usage: $0 [EMULATOR...] WOODSHED" >&2
  exit 2
fi
ws=("$@")
last=$(( ${#ws[@]} - 1 ))
if [[ "${ws[last]}" == */* ]]; then
  ws[last]=$(cd "$(dirname "${ws[last]}")" && pwd)/$(basename "${ws[last]}")
fi
emulated=0
[ ${#ws[@]} -gt 1 ] && emulated=1

work=$(mktemp -d "${TMPDIR:-/tmp}/woodshed-$harness_name.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

passed=0
failed=0
pass() { passed=$((passed + 1)); }
fail() { failed=$((failed + 1)); echo "FAIL: $*"; }

# Runs the program; stdout, stderr (carriage returns dropped, as a Windows
# build writes them) and the exit status land in $out, $err and $rc.
run() {
  "${ws[@]}" "$@" > stdout.txt 2> stderr.txt
  rc=$?
  out=$(tr -d '\r' < stdout.txt)
  err=$(tr -d '\r' < stderr.txt)
}

# The tally, and the script's exit status.
finish() {
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}
