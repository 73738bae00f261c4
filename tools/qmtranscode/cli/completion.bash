# Completion of qmtranscode's options and of their values, for bash.
_qmtranscode() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} words
    COMPREPLY=()
    case $before in
        --video-codec) words="avc h263 mpeg4" ;;
        --audio-codec) words="aac amr-nb amr-wb" ;;
        --format) words="mp4 3gp" ;;
        --progress) words="bar json none" ;;
        --partial) words="keep discard" ;;
        --preset)
            words="ultrafast superfast veryfast faster fast medium slow slower veryslow placebo"
            ;;
        --log-format) words="brief process tag thread raw time threadtime long" ;;
        --trim | --size | --fps | --video-bitrate | --audio-bitrate | --audio-rate | \
            --audio-channels | --threads | --log) return ;;
        *)
            if [[ $word != -* ]]; then
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "$word")
                return
            fi
            words="--trim --size --fps --video-bitrate --video-codec --audio-bitrate --audio-rate
                --audio-channels --audio-codec --format --faststart --preset --threads --overwrite
                --partial --plan --json --progress --trace --log --log-format --help --version"
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _qmtranscode qmtranscode
