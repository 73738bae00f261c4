# shellcheck shell=bash
# Functions that the test cases share. Sourced by each script, which ends with: run_case "$@"
# Given from outside: QMTRANSCODE, the command; CLIPS, the folder of test clips; FAULT_LIBRARY, for with_faults().
set -euo pipefail
# Independent of the caller's: ls, wc and numbers follow the locale, and script(1) runs $SHELL.
export LC_ALL=C.UTF-8 SHELL=/bin/bash
case_script=$(realpath "$0")
tests_folder=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
check_boxes=$tests_folder/check_boxes
# The command and its options under which the next command runs.
under=()

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# For tests that are not possible on this machine: `./test` ends with their reasons.
skip() {
    echo "SKIPPED: $*"
    exit 77
}

# Runs the case in an empty folder, whose path has a space so that every case covers that. The output of the commands
# goes to the files $stdout and $stderr beside the folder.
run_case() {
    case_folder=$(mktemp -d "${TMPDIR:-/tmp}/qm test.XXXXXX")
    trap 'chmod -R u+w "$case_folder" && rm -rf "$case_folder"' EXIT
    stdout=$case_folder/stdout
    stderr=$case_folder/stderr
    mkdir "$case_folder/work"
    cd "$case_folder/work"
    objects=$case_folder/objects
    : >"$objects"
    "case_$1"
    "$tests_folder/check_objects" "$tests_folder/../../tools/qmtranscode/report/run.schema.json" "$objects" ||
        fail "an object of --json does not follow its schema"
}

# as_ordinary_user CASE: runs another case without root's right to write everywhere.
as_ordinary_user() {
    local without=(setpriv --bounding-set=-dac_override)
    ((EUID == 0)) || without=()
    "${without[@]}" true 2>/dev/null || skip "root may write everywhere here and cannot give that right up"
    "${without[@]}" "$case_script" "$1"
}

# wait_until COMMAND…: until it succeeds, for $patience seconds at most.
patience=60
wait_until() {
    local end=$((SECONDS + patience))
    until "$@"; do
        ((SECONDS < end)) || fail "not in $patience s: $*"
        sleep 0.02
    done
}

# Whether the process $worker has ended; also while its new parent has not reaped it yet.
has_ended() { [[ -z $worker ]] || ! grep -q '^State:.[^Z]' "/proc/$worker/status" 2>/dev/null; }

# attempt ARGUMENTS…: runs the command. Sets `status`, and `said` to its standard error.
attempt() {
    status=0
    timeout 60 "${under[@]}" "$QMTRANSCODE" "$@" >"$stdout" 2>"$stderr" </dev/null || status=$?
    said=$(<"$stderr")
    [[ " $* " != *" --json "* ]] || cat "$stdout" >>"$objects"
}

# transcode INPUT OUTPUT [OPTIONS]: must succeed and print nothing on standard error.
transcode() {
    attempt "$@"
    [[ $status == 0 && -z $said ]] || fail "status $status of: $* ($said)"
    [[ ! -s $2 ]] || "$check_boxes" "$2" || fail "boxes of the output of: $*"
}

# expect_failure STATUS SUBJECT: the last command ended with that status and one line that names the subject.
expect_failure() {
    [[ $status == "$1" ]] || fail "status $status instead of $1 ($said)"
    [[ $said != *$'\n'* && $said == "qmtranscode: "*"$2"?* ]] || fail "not one line with '$2' and a reason: $said"
    [[ ! -s $stdout ]] || expect_equal "standard output" "$(field "$as_line")" "$status $said"
}

# The exit status and the message that the object of a run has.
as_line='"\(.exit) qmtranscode: \(.error | [.subject, .text] | map(select(. != "")) | join(": "))"'

# expect_refused "STATUS CODE" SUBJECT ARGUMENTS…
expect_refused() {
    attempt --json "${@:3}"
    expect_failure "${1% *}" "$2"
    expect_equal "code of: ${*:3}" "$(field .error.code)" "${1#* }"
}

# expect_lines FILE PATTERN…: some line of the file matches each pattern.
expect_lines() {
    local pattern
    for pattern in "${@:2}"; do
        grep -qE -e "$pattern" "$1" || fail "no '$pattern' in: $(<"$1")"
    done
}

# with_faults FAULT FUNCTION…: the command runs with a fault; see fault_library.cpp. WAIT lasts until $case_folder/go
# exists.
with_faults() {
    # LD_PRELOAD splits at spaces, so the library is loaded by a path that has none.
    [[ -e ../fault.so ]] || cp "$FAULT_LIBRARY" ../fault.so
    local under=(env LD_PRELOAD=../fault.so QM_FAULT="$1" QM_FAULT_COUNT=../calls
        QM_FAULT_UNTIL="$case_folder/go")
    "${@:2}"
}

# Exactly these names are in the folder.
expect_files() {
    expect_equal "files" "$(ls -A)" "$( (($# == 0)) || printf '%s\n' "$@" | sort)"
}

# A value of the receipt or the plan.
field() { jq -r "$1" "$stdout"; }

expect_equal() { [[ $2 == "$3" ]] || fail "$1 is '$2' instead of '$3'"; }

# expect_near WHAT VALUE EXPECTED TOLERANCE
expect_near() {
    awk -v v="$2" -v e="$3" -v t="$4" 'BEGIN { d = v - e; exit !(v != "" && d <= t && d >= -t) }' ||
        fail "$1 is '$2' instead of $3 ± $4"
}

# expect_output FILE WHAT=VALUE[~TOLERANCE]…: what the functions below find in the file.
expect_output() {
    local what value found
    for what in "${@:2}"; do
        value=${what#*=}
        what=${what%%=*}
        found=$("$what" "$1")
        if [[ $value == *~* ]]; then
            expect_near "$what of $1" "$found" "${value%~*}" "${value#*~}"
        else
            expect_equal "$what of $1" "$found" "$value"
        fi
    done
}

# show OPTIONS…: the values of what ffprobe is asked for.
show() { ffprobe -v error -of default=nw=1:nk=1 "$@"; }

size() { show -select_streams v:0 -show_entries stream=width,height "$1" | paste -sdx; }
rotation() { show -show_entries stream_side_data=rotation "$1"; }
rate() { show -select_streams a:0 -show_entries stream=sample_rate "$1"; }
channels() { show -select_streams a:0 -show_entries stream=channels "$1"; }
video_bitrate() { show -select_streams v:0 -show_entries stream=bit_rate "$1"; }
audio_bitrate() { show -select_streams a:0 -show_entries stream=bit_rate "$1"; }
video_seconds() { show -select_streams v:0 -show_entries stream=duration "$1"; }
seconds() { show -show_entries format=duration "$1"; }
brand() { show -show_entries format_tags=major_brand "$1" | head -c 2; }

# "video/h264 audio/aac", in the order of the file.
tracks() {
    ffprobe -v error -show_entries stream=codec_type,codec_name -of csv=p=0 "$1" |
        awk -F, '{ printf "%s%s/%s", sep, $2, $1; sep = " " }'
}

# The number of frames that are decoded from a file.
frames() { show -count_frames -select_streams v:0 -show_entries stream=nb_read_frames "$1"; }

# The number of video packets of a file.
packets() { show -count_packets -select_streams v:0 -show_entries stream=nb_read_packets "$1" | head -1; }

# The timestamp of each frame in seconds, one per line.
frame_times() { show -select_streams v:0 -show_entries frame=pts_time "$1" | grep .; }

# packet_times FILE STREAM: "TIMESTAMP,DURATION" of each packet, in seconds.
packet_times() { ffprobe -v error -select_streams "$2" -show_entries packet=pts_time,duration_time -of csv=p=0 "$1"; }

quiet_ffmpeg() { ffmpeg -nostdin -y -v error "$@"; }

# The length of the decoded audio in seconds, without the part that the edit list cuts off.
audio_seconds() {
    quiet_ffmpeg -i "$1" -map a:0 -f s16le -ac 1 -ar 8000 - | wc -c | awk '{ printf "%.3f", $1 / 16000 }'
}

# The average brightness of each frame, rounded, one per line.
brightness() {
    quiet_ffmpeg -i "$1" -map v:0 -vf signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=- -f null - |
        sed -n 's/.*YAVG=//p' | awk '{ printf "%d\n", $1 + 0.5 }'
}

# A checksum of each decoded frame and audio buffer.
frame_sums() { quiet_ffmpeg -i "$1" -f framemd5 - | grep -v '^#'; }

# Every frame can be decoded, without any message of the decoder.
expect_clean() {
    local complaints
    complaints=$(quiet_ffmpeg -xerror -i "$1" -f null - 2>&1) || fail "$1 does not decode: $complaints"
    [[ -z $complaints ]] || fail "$1 decodes with complaints: $complaints"
}

# loudness FILE START: the mean volume in dB of 0.8 s from there.
loudness() {
    ffmpeg -nostdin -ss "$2" -t 0.8 -i "$1" -map a:0 -af volumedetect -f null - 2>&1 |
        sed -n 's/.*mean_volume: \(.*\) dB/\1/p'
}

# start ARGUMENTS…: transcodes the long clip in the background. Its standard error can be read from descriptor 3.
start() {
    rm -f ../pipe
    mkfifo ../pipe
    "${under[@]}" "$QMTRANSCODE" "$CLIPS/long.mp4" out.mp4 --progress json "$@" >"$stdout" 2>../pipe </dev/null &
    pid=$!
    exec 3<../pipe
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
    said=$(grep -v progress <&3) || true
    wait "$pid" || status=$?
}

# Requests a stop of the command and waits for it.
interrupt() {
    kill -INT "$pid"
    finish
    expect_equal "status ($said)" "$status" 130
}
