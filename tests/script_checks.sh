# Sourced by the shell tests: check <got> <expected> <what> prints "ok: <what>" or the difference,
# check_contains <text> <part> <what> the same for a part of a text; both count failures in
# $failures. End a test with checks_passed.
failures=0

check() {
    if [ "$1" = "$2" ]; then
        echo "ok: $3"
    else
        echo "FAILED: $3: expected [$2], got [$1]"
        failures=$((failures + 1))
    fi
}

check_contains() {
    case $1 in
    *"$2"*) echo "ok: $3" ;;
    *)
        echo "FAILED: $3: [$2] not in [$1]"
        failures=$((failures + 1))
        ;;
    esac
}

checks_passed() {
    echo "$failures failure(s)"
    [ "$failures" -eq 0 ]
}
