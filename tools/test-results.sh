# Test results of a multi-stage test command (tools/package-tests.sh, .ci/run), sourced by them.
# Each test is one line of the results file: "<passed|failed|skipped> <stage> <name> [reason]";
# each stage's duration a line "time <stage> <seconds>". The closing summary counts them all and
# ends with the line "N passed, N failed, N skipped".

# results_add <file> <passed|failed|skipped> <stage> <name> [reason]
results_add() {
    printf '%s %s %s%s\n' "$2" "$3" "$4" "${5:+ $5}" >>"$1"
}

# results_from_junit <file> <stage> <ctest's --output-junit file>: a test that ctest skips
# (SKIP_RETURN_CODE) or that is disabled counts as skipped; one it could not start as failed.
results_from_junit() {
    local results=$1 stage=$2 junit=$3
    if [ ! -s "$junit" ]; then
        results_add "$results" failed "$stage" "(ctest wrote no results)"
        return
    fi
    awk -v stage="$stage" '
        /<testcase / {
            match($0, /name="[^"]*"/); name = substr($0, RSTART + 6, RLENGTH - 7)
            match($0, /status="[^"]*"/); status = substr($0, RSTART + 8, RLENGTH - 9)
            if (status == "run") { print "passed", stage, name }
            else if (status == "disabled") { print "skipped", stage, name, "(disabled)" }
            else if (status != "notrun") { print "failed", stage, name }
            pending = status == "notrun" ? name : ""
        }
        /<skipped message=/ && pending != "" {
            match($0, /message="[^"]*"/); reason = substr($0, RSTART + 9, RLENGTH - 10)
            print (reason ~ /^SKIP_/ ? "skipped" : "failed"), stage, pending, "(" reason ")"
            pending = ""
        }' "$junit" >>"$results"
}

# results_time <file> <stage> <seconds>
results_time() {
    printf 'time %s %s\n' "$2" "$3" >>"$1"
}

# results_summary <file>: per stage its counts and time, the names of the tests that failed or did
# not run, and last the line "N passed, N failed, N skipped".
results_summary() {
    awk '
        $1 == "time" { if (!($2 in seen)) { seen[$2] = 1; order[++stages] = $2 }; seconds[$2] += $3; next }
        $1 == "passed" || $1 == "failed" || $1 == "skipped" {
            if (!($2 in seen)) { seen[$2] = 1; order[++stages] = $2 }
            count[$2, $1]++; total[$1]++
            if ($1 != "passed") { line = $0; sub(/^[a-z]+ /, "", line); names[$1] = names[$1] "  " line "\n" }
        }
        END {
            print "== summary"
            for (i = 1; i <= stages; i++) {
                s = order[i]
                printf "%-12s", s
                if (count[s, "passed"] + count[s, "failed"] + count[s, "skipped"] > 0)
                    printf " %4d passed, %d failed, %d skipped", count[s, "passed"], count[s, "failed"], count[s, "skipped"]
                if (s in seconds) { printf " (%d s)", seconds[s]; all += seconds[s] }
                printf "\n"
            }
            printf "%-12s %d s, %d min %d s\n", "time", all, all / 60, all % 60
            if (names["skipped"] != "") printf "not run:\n%s", names["skipped"]
            if (names["failed"] != "") printf "FAILED:\n%s", names["failed"]
            printf "%d passed, %d failed, %d skipped\n", total["passed"], total["failed"], total["skipped"]
        }' "$1"
}

# results_failed <file>: true when a test of the file failed
results_failed() {
    grep -q '^failed ' "$1"
}
