# Sourced by the shell tests: check <got> <expected> <what> prints "ok: <what>" or the difference,
# and counts failures in $failures; end a test with checks_passed.
failures=0

check() {
    if [ "$1" = "$2" ]; then
        echo "ok: $3"
    else
        echo "FAILED: $3: expected [$2], got [$1]"
        failures=$((failures + 1))
    fi
}

checks_passed() {
    echo "$failures failure(s)"
    [ "$failures" -eq 0 ]
}
