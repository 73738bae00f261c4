# shellcheck shell=bash
# What `run` and `test` share. Sourced by both; `root` is the folder of the project.
root=$(dirname "$(dirname "$(realpath "${BASH_SOURCE[0]}")")")

# Which of the presets is configured and built.
use_preset() {
    preset=$1
    build=$root/build/$preset
}
use_preset release

fail() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

# package_names LIST…: the names in these files of scripts/, a line each.
package_names() {
    local list
    for list in "$@"; do
        sed 's/#.*//' "$root/scripts/$list" | awk 'NF { print $1 }'
    done
}

missing_packages() {
    local package
    package_names "$@" | while read -r package; do
        [[ $(dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null) == ii* ]] || echo "$package"
    done
}

# install_packages [LIST…]: those of `packages` when no list is named.
install_packages() {
    (($# > 0)) || set -- packages
    local missing as_root=()
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]} > 0)) || return 0
    if ((EUID != 0)); then
        command -v sudo >/dev/null || fail "root or sudo is needed to install: ${missing[*]}"
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y --no-install-recommends "${missing[@]}"; } >"$log" 2>&1 </dev/null; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        fail "the packages could not be installed"
    fi
    rm -f "$log"
}

# configure [OPTIONS]: cmake's.
configure() {
    cd "$root"
    mkdir -p "$build"
    if ! cmake --preset "$preset" "$@" >"$build/configure.log" 2>&1; then
        cat "$build/configure.log" >&2
        fail "the build could not be configured"
    fi
}

# build_targets [TARGET…]: everything when none is named.
build_targets() {
    cd "$root"
    [[ -f $build/build.ninja && ! CMakePresets.json -nt $build/build.ninja ]] || configure
    ninja -C "$build" "$@" || fail "the build failed"
}

# run_tests [OPTIONS]: passes them to ctest and returns its status. Then lists the tests that were skipped with the
# reason of each, because ctest does not print it.
run_tests() {
    local status=0 log=$build/Testing/Temporary/LastTest.log
    rm -f "$log"
    ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)" "$@" || status=$?
    local skipped=
    [[ ! -f $log ]] || skipped=$(list_skipped "$log")
    [[ -z $skipped ]] || printf '\nSkipped tests:\n%s\n' "$skipped"
    return "$status"
}

# list_skipped LOG: a script prints "SKIPPED: REASON"; GoogleTest prints the reason in the line below the place.
list_skipped() {
    awk '
        /^[0-9]+\/[0-9]+ Test: / { name = $0; sub(/^[^:]*: /, "", name); reason = ""; failed = 0 }
        /^SKIPPED: / { reason = substr($0, 10) }
        after_place { reason = $0; after_place = 0 }
        /: Skipped$/ { after_place = 1 }
        /^Test Failed\.$/ { failed = 1 }
        /^".*" time elapsed: / && reason != "" && !failed { print "  " name ": " reason }' "$1" | sort
}
