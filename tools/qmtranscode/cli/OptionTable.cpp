#include <qmtranscode/cli/OptionTable.h>

namespace android::qmmediaeditor::cli {

const char* const kHelp = R"(Usage: qmtranscode [OPTIONS] INPUT OUTPUT

Decodes the first pictures and the first sound of a media file, and writes them
anew into an MPEG-4 file: whole, or the periods that are to be kept. What is not
asked for follows the input.

  --trim START-END         keep this period; seconds or h:mm:ss.mmm; repeatable,
                           in time order
Pictures
  --size WxH               as they are displayed; both even
  --fps N                  pictures a second at most
  --video-bitrate RATE     bits a second, such as 4M
  --video-codec NAME       avc, h263 or mpeg4
Sound
  --audio-bitrate RATE     bits a second, such as 128k
  --audio-rate HZ          sample rate
  --audio-channels N       1 to 8
  --audio-codec NAME       aac, amr-nb or amr-wb
The file
  --format NAME            mp4 or 3gp
  --faststart              the index first, for players that read from the start
  --preset NAME            AVC speed, ultrafast to placebo; default veryfast
  --threads N              of each video codec, 1 to 64; default: the CPUs that
                           may be used, at most 16
  --overwrite              replace OUTPUT when it exists
  --partial CHOICE         after a stop, keep the shorter file (keep, the
                           default) or nothing (discard)
To see what happens
  --plan                   say what would be done, as JSON, and do nothing
  --json                   the receipt as JSON, on standard output
  --progress STYLE         bar, json or none; default: a bar on a terminal
  --trace FILE             a trace of the run, for https://ui.perfetto.dev
  --log FILTER             the log in logcat's words, such as 'Transcode:V *:S'
  --log-format NAME        brief, process, tag, thread, raw, time, threadtime or
                           long
  --help  --version

Examples
  qmtranscode in.mov out.mp4
  qmtranscode in.mkv out.mp4 --size 1280x720 --video-bitrate 4M
  qmtranscode in.mp4 out.mp4 --trim 0-2.5 --trim 1:30-1:45
  qmtranscode in.mp4 out.mp4 --fps 15 --plan

Exit status: 0 the output is whole; 1 failed; 2 the command line cannot be used;
3 the input, or what is asked of it, cannot be used; 130 stopped by a signal.
)";

}  // namespace android::qmmediaeditor::cli
