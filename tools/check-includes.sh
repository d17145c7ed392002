#!/usr/bin/env bash
# The layers of src/ point down only. From the bottom:
#   util                   plain helpers, encodings, blob parsers
#   log                    the log facility (uses util)
#   token                  the token: device library, login, PIN dialog, tables
#   cert                   certificate chains and imports (used by both front-ends)
#   csp, ksp               the two front-ends, side by side: neither includes the other
#   register               the DLL's entry layer (DllMain, registration, the library loader)
# A file may include its own layer and the layers below it. Every include that points up or across
# is printed as "file:line: include" and the script exits 1.
#   tools/check-includes.sh [tree]    (tree: the folder holding src/, by default this repository)
set -euo pipefail
tree=${1:-"$(dirname "$0")/.."}
cd "$tree"

declare -A rank=([util]=0 [log]=1 [token]=2 [cert]=3 [csp]=4 [ksp]=4 [register]=5)

found=0
while IFS= read -r hit; do
    file=${hit%%:*}
    rest=${hit#*:}
    line=${rest%%:*}
    include=${rest#*:}
    from=${file#src/}
    from=${from%%/*}
    target=${include#*\"}
    target=${target%%/*}
    # Files outside the layers, and includes of something that is not a layer (resource.h), are
    # not judged.
    [[ -n ${rank[$from]:-} && -n ${rank[$target]:-} ]] || continue
    [[ $from == "$target" ]] && continue
    if ((rank[$target] >= rank[$from])); then
        echo "$file:$line: $include"
        found=1
    fi
done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[a-z_]+/' src --include='*.h' --include='*.cpp' | sort)

if ((found)); then
    echo "check-includes: the includes above point up or from one front-end to the other" >&2
    exit 1
fi
