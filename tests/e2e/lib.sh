# shellcheck shell=bash
# Functions that the test cases share. Sourced by each script, which ends with: run_case "$@"
# Given from outside: QMTRANSCODE, the command; CLIPS, the folder of test clips; FAULT_LIBRARY, for faulty().
set -euo pipefail
# Independent of the caller's: ls, wc and numbers follow the locale, and script(1) runs $SHELL.
export LC_ALL=C.UTF-8 SHELL=/bin/bash
case_script=$(realpath "$0")

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# For tests that are not possible on this machine: `./test` ends with their reasons.
skip() {
    echo "SKIPPED: $*"
    exit 77
}

# Runs the case in an empty folder of its own, whose name has a space so that every case covers that.
run_case() {
    case_folder=$(mktemp -d "${TMPDIR:-/tmp}/qm test.XXXXXX")
    trap 'chmod -R u+w "$case_folder" && rm -rf "$case_folder"' EXIT
    cd "$case_folder"
    "case_$1"
}

# as_ordinary_user CASE: runs another case without root's right to write everywhere.
as_ordinary_user() {
    if ((EUID == 0)); then
        setpriv --bounding-set=-dac_override true 2>/dev/null ||
            skip "root may write everywhere here and cannot give that right up"
        setpriv --bounding-set=-dac_override "$case_script" "$1"
    else
        "$case_script" "$1"
    fi
}

# transcode INPUT OUTPUT [OPTIONS]: must succeed and print nothing on standard error.
transcode() {
    "$QMTRANSCODE" "$@" >stdout 2>stderr </dev/null || fail "status $? of: $* ($(cat stderr))"
    [[ ! -s stderr ]] || fail "unexpected on standard error: $(cat stderr)"
    rm stdout stderr
}

# expect_refused STATUS SUBJECT ARGUMENTS…: fails with that status and one line that names the subject.
expect_refused() {
    local expected=$1 subject=$2 status=0
    shift 2
    timeout 60 "$QMTRANSCODE" "$@" >stdout 2>stderr </dev/null || status=$?
    local said
    said=$(cat stderr)
    [[ $status == "$expected" ]] || fail "status $status instead of $expected: $* ($said)"
    [[ $(wc -l <stderr) == 1 ]] || fail "not exactly one line: $said"
    [[ $said == "qmtranscode: "*"$subject"?* ]] || fail "no subject '$subject' or reason: $said"
    [[ ! -s stdout ]] || fail "unexpected on standard output: $(cat stdout)"
    rm stdout stderr
}

# faulty FAULTS TEXT ARGUMENTS…: runs the command with faults in the files whose names contain the text; see
# fault_library.cpp. Sets `status`, and leaves the output in stdout and stderr.
faulty() {
    local faults=$1 text=$2
    shift 2
    # LD_PRELOAD splits at spaces, so the library is loaded by a path that has none.
    [[ -e fault.so ]] || cp "$FAULT_LIBRARY" fault.so
    status=0
    timeout 60 env LD_PRELOAD=./fault.so QM_FAULT="$faults" QM_FAULT_FILE="$text" QM_FAULT_COUNT=calls \
        "$QMTRANSCODE" "$@" >stdout 2>stderr </dev/null || status=$?
}

# calls OPERATION: the number of calls in the last `faulty` command.
calls() {
    awk -v operation="$1" '$1 == operation { print $2 }' calls
}

# The number of failed calls in the last `faulty` command.
failed_calls() {
    awk 'NF == 3 && $1 != "first" { failed += $3 } END { print failed + 0 }' calls
}

# expect_failure SUBJECT: the last `faulty` command ended with status 1 and one line that names the subject.
expect_failure() {
    local said
    said=$(cat stderr)
    [[ $status == 1 ]] || fail "status $status instead of 1 ($said)"
    [[ $(wc -l <stderr) == 1 ]] || fail "not exactly one line: $said"
    [[ $said == "qmtranscode: "*"$1"?* ]] || fail "no subject '$1' or reason: $said"
    [[ ! -s stdout ]] || fail "unexpected on standard output: $(cat stdout)"
}

# Exactly these names are in the folder.
expect_files() {
    local found expected
    found=$(find . -mindepth 1 -maxdepth 1 -printf '%f\n' | sort | tr '\n' ' ')
    expected=$( (($# == 0)) || printf '%s\n' "$@" | sort | tr '\n' ' ')
    [[ $found == "$expected" ]] || fail "files are '$found' instead of '$expected'"
}

expect_equal() {
    [[ $2 == "$3" ]] || fail "$1 is '$2' instead of '$3'"
}

# expect_near WHAT VALUE EXPECTED TOLERANCE
expect_near() {
    awk -v v="$2" -v e="$3" -v t="$4" 'BEGIN { d = v - e; exit !(v != "" && d <= t && d >= -t) }' ||
        fail "$1 is '$2' instead of $3 ± $4"
}

# probe FILE STREAM ENTRY: a stream's entry, such as width of v:0.
probe() {
    ffprobe -v error -select_streams "$2" -show_entries "stream=$3" -of default=nw=1:nk=1 "$1"
}

# file_entry FILE SECTION=ENTRY: such as format=duration.
file_entry() {
    ffprobe -v error -show_entries "$2" -of default=nw=1:nk=1 "$1"
}

# "video/h264 audio/aac", in the order of the file.
tracks() {
    ffprobe -v error -show_entries stream=codec_type,codec_name -of csv=p=0 "$1" |
        awk -F, '{ printf "%s%s/%s", sep, $2, $1; sep = " " }'
}

# The number of frames that are decoded from a file.
frames() {
    ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
        -of default=nw=1:nk=1 "$1"
}

# The number of video packets of a file.
packets() {
    ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets \
        -of default=nw=1:nk=1 "$1" | head -1
}

# The timestamp of each frame in seconds, one per line.
frame_times() {
    ffprobe -v error -select_streams v:0 -show_entries frame=pts_time -of csv=p=0 "$1" |
        tr -d , | grep .
}

# The length of the decoded audio in seconds, without the part that the edit list cuts off.
audio_seconds() {
    ffmpeg -nostdin -v error -i "$1" -map a:0 -f s16le -ac 1 -ar 8000 - | wc -c |
        awk '{ printf "%.3f", $1 / 16000 }'
}

# Every frame can be decoded, without any message of the decoder.
expect_clean() {
    local said
    said=$(ffmpeg -nostdin -v error -xerror -i "$1" -f null - 2>&1) || fail "$1 does not decode: $said"
    [[ -z $said ]] || fail "$1 decodes with complaints: $said"
}

# The average brightness of each frame, rounded, one per line.
brightness() {
    ffmpeg -nostdin -v error -i "$1" -map v:0 \
        -vf signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=- -f null - |
        sed -n 's/.*YAVG=//p' | awk '{ printf "%d\n", $1 + 0.5 }'
}

# loudness FILE START: the mean volume in dB of 0.8 s from there.
loudness() {
    ffmpeg -nostdin -ss "$2" -t 0.8 -i "$1" -map a:0 -af volumedetect -f null - 2>&1 |
        sed -n 's/.*mean_volume: \(.*\) dB/\1/p'
}

# start ARGUMENTS…: runs the command in the background. Its standard error can be read from descriptor 3.
start() {
    mkfifo pipe
    "$QMTRANSCODE" "$CLIPS/long.mp4" out.mp4 --progress json "$@" >stdout 2>pipe </dev/null &
    pid=$!
    exec 3<pipe
    rm pipe
}

# Links the library here for LD_PRELOAD=./slow_disk.so, because the loader splits LD_PRELOAD at spaces.
link_slow_disk() {
    ln -s "$SLOW_DISK" slow_disk.so
}

wait_for_progress() {
    local line=
    while read -r -t 60 line <&3; do
        [[ $line =~ \"progress\":([0-9]+) ]] && ((BASH_REMATCH[1] >= $1)) && return
    done
    fail "no progress of $1 (last: $line)"
}

# finish: waits for the command; sets `status`, and `said` to its messages.
finish() {
    status=0
    cat <&3 >stderr
    wait "$pid" || status=$?
    said=$(grep -v progress stderr || true)
    rm stderr
}
