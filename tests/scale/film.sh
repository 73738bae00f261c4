# shellcheck shell=bash
# A film of ten minutes, and its output in sections beside that of a single run. Sourced by tests.

quiet() { ffmpeg -nostdin -y -v error "$@"; }

# make_film FILE: motion, noise and cuts, which all differ from minute to minute.
make_film() {
    quiet -f lavfi -i "testsrc2=size=320x180:rate=30000/1001:duration=600" \
        -f lavfi -i "sine=frequency=330:sample_rate=48000:duration=600" -ac 2 \
        -vf noise=alls=8:allf=t \
        -c:v libx264 -preset ultrafast -crf 18 -g 60 -pix_fmt yuv420p -c:a aac "$1"
}

# describe_film FILE: the packets with their times, and the decoded audio.
describe_film() {
    ffprobe -v error -show_entries packet=stream_index,pts,duration -of csv=p=0 "$1"
    quiet -i "$1" -map 0:a -f s16le - | md5sum
}

# psnr_of FILE FILM: of each frame.
psnr_of() {
    quiet -i "$1" -i "$2" -lavfi "[0:v][1:v]psnr=stats_file=stats" -f null -
    sed 's/.*psnr_avg:\([0-9.inf]*\).*/\1/; s/inf/100/' stats
}

# compare_film FILM SINGLE JOINED SECTIONS: frames, timestamps and audio are the same, the size within 2 %, and the PSNR of
# ten frames on each side of a joint at most 0.5 dB lower. A joint is near a multiple of a section's length, which is
# 17982 frames, at a key frame, which is each 30. Works in the current folder.
compare_film() {
    local size
    diff <(describe_film "$2") <(describe_film "$3") >difference ||
        fail "$4 sections: frames, timestamps or audio differ: $(head -3 difference)"
    size=$(awk -v a="$(stat -c %s "$2")" -v b="$(stat -c %s "$3")" 'BEGIN { printf "%.2f", 100 * (b - a) / a }')
    [[ -s single.psnr ]] || psnr_of "$2" "$1" >single.psnr
    psnr_of "$3" "$1" >joined.psnr
    paste single.psnr joined.psnr | awk -v n="$4" -v size="$size" '
        { d[NR] = $2 - $1 }
        END {
            for (k = 1; k < n; ++k) {
                joint = int(NR / 30 * k / n) * 30
                for (i = joint - 9; i <= joint + 10; ++i) if (d[i] < worst) worst = d[i]
            }
            printf "%d sections: %d frames, size %+.2f %%, worst PSNR at a joint %+.2f dB\n", n, NR, size, worst
            exit !(size < 2 && size > -2 && worst > -0.5)
        }' || fail "$4 sections: the output differs too much"
}
