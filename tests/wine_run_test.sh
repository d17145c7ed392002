#!/bin/sh
# tests/wine-run.sh with a stand-in for wine on PATH that ends with scripted statuses: a program that
# Wine failed before it ran (status 66, STATUS_DLL_INIT_FAILED) is started once more and only once,
# any other failure is reported with its status and not repeated, and a run whose wineserver has
# ended fails even when the program "passed".
#   wine_run_test.sh <source dir>
set -u
run=$1/tests/wine-run.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin" "$work/prefix"
# The stand-in pops the next status from $work/statuses and counts its starts in $work/starts.
cat >"$work/bin/wine" <<STANDIN
#!/bin/sh
echo started >>"$work/starts"
status=\$(head -n 1 "$work/statuses")
sed -i 1d "$work/statuses"
exit "\$status"
STANDIN
chmod +x "$work/bin/wine"
PATH=$work/bin:$PATH
. "$1/tests/script_checks.sh"

# run_with <statuses...>: runs wine-run.sh once; sets $status, $starts and $messages.
run_with() {
    printf '%s\n' "$@" >"$work/statuses"
    : >"$work/starts"
    status=0
    messages=$("$run" "$work/prefix" program.exe 2>&1) || status=$?
    starts=$(wc -l <"$work/starts")
}

run_with 0
check "$status/$starts" "0/1" "a program that passes runs once and passes"
check "$messages" "" "a passing program gets no message"

run_with 66 0
check "$status/$starts" "0/2" "a program that Wine failed before it ran is started once more"
check_contains "$messages" \
    "Wine failed program.exe before it ran (status 66, STATUS_DLL_INIT_FAILED); starting it once more" \
    "the second start is announced"

run_with 66 66 0
check "$status/$starts" "66/2" "a second failure before it ran is not started a third time"
check_contains "$messages" "program.exe ended with status 66" "the final status is reported"

run_with 1 0
check "$status/$starts" "1/1" "a failing test is not started again"
check "$messages" "wine-run: program.exe ended with status 1" "its status is reported"

# A wineserver.pid naming a process that has ended: the run's server is gone.
sh -c 'exit 0' &
gone=$!
wait "$gone"
echo "$gone" >"$work/prefix/wineserver.pid"
run_with 0
check "$status/$starts" "1/0" "without the run's wineserver the program is not started"
check_contains "$messages" "has ended;" "the ended server is named"

checks_passed
