#!/bin/sh
# tools/check-includes.sh on this tree (no include points up) and on copies of its src/ with one
# include planted that points up or across: each is reported as "file:line: include" with exit 1,
# and an include that points down is left alone.
#   include_check_test.sh <source dir>
set -u
source_dir=$1
script=$source_dir/tools/check-includes.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$source_dir/tests/script_checks.sh"

# run_on <tree>: sets $status and $output.
run_on() {
    status=0
    output=$("$script" "$1" 2>/dev/null) || status=$?
}

run_on "$source_dir"
check "$status" 0 "the tree's own includes all point down"
check "$output" "" "nothing is reported for the tree"

# plant <file under src/> <layer/header.h>: a fresh copy of src/ with the include added as the
# file's last line, then the check run on it.
plant() {
    rm -rf "$work/tree"
    mkdir "$work/tree"
    cp -R "$source_dir/src" "$work/tree/src"
    printf '#include "%s"\n' "$2" >>"$work/tree/src/$1"
    planted_line=$(wc -l <"$work/tree/src/$1")
    run_on "$work/tree"
}

for case in "token/login.cpp csp/csp_context.h" \
    "token/token_table.h register/bcrypt_registration.h" \
    "token/login.cpp cert/ca_folder.h" \
    "util/encoding.cpp token/device_library.h" \
    "util/utils.h log/log.h" \
    "log/log.cpp token/token_table.h" \
    "cert/ca_folder.cpp ksp/ksp_common.h" \
    "csp/csp_login.cpp ksp/ksp_login.h" \
    "ksp/ksp_common.h csp/csp_context.h" \
    "csp/random.cpp register/bcrypt_registration.h"; do
    set -- $case
    plant "$1" "$2"
    check "$status" 1 "src/$1 including $2 fails the check"
    check "$output" "src/$1:$planted_line: #include \"$2\"" "src/$1 including $2 is reported with its line"
done

for case in "register/registration.cpp csp/csp_context.h" \
    "ksp/ksp_common.cpp cert/ca_folder.h" \
    "token/login.cpp util/encoding.h" \
    "log/log.cpp util/encoding.h"; do
    set -- $case
    plant "$1" "$2"
    check "$status/$output" "0/" "src/$1 including $2 points down and passes"
done

checks_passed
