# shellcheck shell=bash
# Functions that `run`, `test` and the commands in scripts/ share. Sourced; `root` is the project's folder.
#
# Their messages go to standard error, because the standard output of `run` belongs to the command it runs.
root=$(dirname "$(dirname "$(realpath "${BASH_SOURCE[0]}")")")

# Selects the preset that the functions below configure, build and test.
use_preset() {
    preset=$1
    build=$root/build/$preset
}
use_preset release

note() {
    echo "${0##*/}: $*" >&2
}

fail() {
    note "$@"
    exit 1
}

# package_names LIST…: the names in these files of scripts/, one a line.
package_names() {
    local list
    for list in "$@"; do
        sed 's/#.*//' "$root/scripts/$list"
    done | awk 'NF && !seen[$1]++ { print $1 }'
}

missing_packages() {
    local names
    mapfile -t names < <(package_names "$@")
    printf '%s\n' "${names[@]}" | grep -vxFf <(
        dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' "${names[@]}" 2>/dev/null |
            awk '$1 ~ /^.i/ { print $2 }'
    ) || true
}

# Prints the size of what apt is about to install and a line for every tenth of the work. The rest of apt's output
# goes on to standard output.
show_apt_progress() {
    local line phase progress shown="Downloading 0 %"
    while IFS= read -r line; do
        case $line in
            dlstatus:*) phase=Downloading ;;
            pmstatus:*) phase=Installing ;;
            *' newly installed, '* | 'Need to get '* | 'After this operation, '*)
                echo "  $line" >&2
                continue
                ;;
            *)
                echo "$line"
                continue
                ;;
        esac
        [[ $line =~ :([0-9]+)[.,][0-9]+: ]] || continue
        progress="$phase $((BASH_REMATCH[1] / 10 * 10)) %"
        [[ $progress == "$shown" ]] || echo "  $progress" >&2
        shown=$progress
    done
}

# install_packages LIST…: installs the packages of these files of scripts/ that are missing.
install_packages() {
    local missing log apt_get=(env DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 apt-get -o DPkg::Lock::Timeout=300)
    mapfile -t missing < <(missing_packages "$@")
    ((${#missing[@]} > 0)) || return 0
    command -v apt-get >/dev/null || fail "there is no apt-get to install these Debian packages: ${missing[*]}"
    if ((EUID != 0)); then
        command -v sudo >/dev/null || fail "root or sudo is needed to install: ${missing[*]}"
        apt_get=(sudo "${apt_get[@]}")
    fi
    note "installing ${missing[*]}"
    log=$(mktemp)
    # A list that cannot be fetched matters only if a package cannot be found without it.
    "${apt_get[@]}" update >"$log" 2>&1 </dev/null || note "not all package lists could be updated"
    # The status goes to standard output, because sudo closes every descriptor after standard error.
    if ! "${apt_get[@]}" -o APT::Status-Fd=1 install -y --no-install-recommends "${missing[@]}" 2>&1 </dev/null |
        show_apt_progress >>"$log"; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        fail "the packages could not be installed"
    fi
    rm -f "$log"
}

# cached LINE: whether the build folder is configured with this line.
cached() {
    grep -qsxF "$1" "$build/CMakeCache.txt"
}

make_build_folder() {
    mkdir -p "$build" 2>/dev/null || true
    [[ -w $build ]] || fail "nothing can be written to $build"
}

# configure [OPTIONS]: passes them to cmake.
configure() {
    local fresh=()
    make_build_folder
    # CMake refuses a build folder that was moved.
    [[ ! -f $build/CMakeCache.txt ]] || cached "CMAKE_HOME_DIRECTORY:INTERNAL=$root" || fresh=(--fresh)
    if ! (cd "$root" && cmake --preset "$preset" "${fresh[@]}" "$@") >"$build/configure.log" 2>&1 </dev/null; then
        cat "$build/configure.log" >&2
        # Without it, the next call configures again.
        rm -f "$build/build.ninja"
        fail "the build could not be configured"
    fi
}

# build_targets [TARGET…]: everything when none is named.
build_targets() {
    make_build_folder
    if [[ ! -f $build/build.ninja || $root/CMakePresets.json -nt $build/build.ninja ]] ||
        ! cached "CMAKE_HOME_DIRECTORY:INTERNAL=$root"; then
        configure
    fi
    ninja -C "$build" "$@" >&2 </dev/null || fail "the build failed"
}

# Builds the command alone, which needs no package that only the tests need.
build_command() {
    local missing
    mapfile -t missing < <(missing_packages packages-test)
    # A build folder with tests keeps them while it can be configured with them.
    if ((${#missing[@]} > 0)) || ! cached BUILD_TESTING:BOOL=ON; then
        cached BUILD_TESTING:BOOL=OFF || configure -DBUILD_TESTING=OFF
    fi
    build_targets qmtranscode
}

# Builds everything, with the tests that `build_command` leaves out.
build_with_tests() {
    cached BUILD_TESTING:BOOL=ON || configure -DBUILD_TESTING=ON
    build_targets
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
