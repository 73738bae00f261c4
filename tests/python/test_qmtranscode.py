"""The Python package, on the library of the build."""

import asyncio
import json
import os
import signal
import subprocess
import sys
import threading
import time

import pytest

import qmtranscode
from qmtranscode import InvalidJob, InvalidRequest, Job, JobFailed, JobStopped, UnusableInput

CLIPS = os.environ["CLIPS"]
CLIP = os.path.join(CLIPS, "steps.mp4")
LONG = os.path.join(CLIPS, "long.mp4")


@pytest.fixture(name="output")
def fixture_output(tmp_path):
    return tmp_path / "out.mp4"


def test_receipt_of_a_complete_file(output):
    seen = []
    receipt = qmtranscode.transcode(
        CLIP, output, trim=[(0, 1.5), (3, None)], fit=(160, 160), audio_channels=1, progress=seen.append
    )
    assert receipt.status == "complete"
    assert receipt.output == str(output)
    assert receipt.seconds == pytest.approx(8.5, abs=0.05)
    assert {track["kind"] for track in receipt.tracks} == {"audio", "video"}
    assert receipt["periods"][1]["asked"] == {"first": 3.0, "last": 10.0}
    assert seen == sorted(seen) and seen[-1] == 100
    assert output.stat().st_size == receipt["bytes"]
    again = Job(**{**receipt["request"], "overwrite": True})
    assert again.run().status == "complete", "the request of a receipt is a request"


def test_isolated_job(output):
    assert qmtranscode.transcode(CLIP, output, trim=[(0, 1)], isolate=True).status == "complete"
    with pytest.raises(JobFailed) as caught:
        qmtranscode.transcode(CLIP, output, overwrite=True, program="/bin/false")
    assert caught.value.code == "program-crashed" and caught.value.retryable
    plan = qmtranscode.transcode(CLIP, output.with_name("other.mp4"), plan=True, isolate=True)
    assert plan.status == "planned"


def test_split_and_options_that_are_none(output):
    periods = [(0, 1), (2, 3)]
    with pytest.raises(InvalidRequest, match="output"):
        qmtranscode.transcode(CLIP)
    receipt = qmtranscode.transcode(CLIP, split=output.with_name("part-%02d.mp4"), trim=periods, isolate=True)
    assert receipt.status == "complete"
    again = Job(**receipt["request"], overwrite=True).run()
    assert again.status == "complete", "the request of a receipt is a request"
    names = ["part-01.mp4", "part-02.mp4"]
    assert sorted(os.listdir(output.parent)) == names
    asyncio.run(qmtranscode.transcode_async(CLIP, split=output.with_name("p%d.mp4"), trim=periods, isolate=True))
    assert sorted(os.listdir(output.parent)) == ["p1.mp4", "p2.mp4", *names]
    options = {"isolate": None, "program": None, "split": None, "fps": None, "overwrite": None}
    assert qmtranscode.transcode(CLIP, output, trim=[(0, 1)], **options).status == "complete"


@pytest.mark.parametrize(
    "options, text",
    [
        ({"trim": [(2, 3), (0, 1)]}, "--trim 0-1"),
        ({"fit": (1, 2, 3)}, "width"),
        ({"fitt": 1}, "unknown option"),
        ({"fps": object()}, "JSON"),
        ({"fps": float("nan")}, "JSON"),
        ({"volume": 3, "loudness": -16}, "cannot be combined"),
        ({"split": "part-%02d.mp4", "isolate": True}, "split takes the place of output"),
        ({"title": "\udcff"}, "not UTF-8"),
    ],
)
def test_requests_that_are_wrong(output, options, text):
    with pytest.raises(InvalidRequest, match=text):
        qmtranscode.transcode(CLIP, output, **options)
    assert not output.exists()


def test_files_that_cannot_be_used(output, tmp_path):
    with pytest.raises(UnusableInput) as caught:
        qmtranscode.transcode(tmp_path / "none", output)
    assert caught.value.code == "ENOENT" and not caught.value.retryable
    assert caught.value.receipt["error"]["stage"] == "opening"
    os.mkfifo(tmp_path / "fifo")
    with pytest.raises(UnusableInput):
        qmtranscode.transcode(tmp_path / "fifo", output)
    for names in (["\udcff.mp4", output], [CLIP, tmp_path / "\udcff.mp4"]):
        with pytest.raises(InvalidRequest, match="not UTF-8"):
            qmtranscode.transcode(*names)
    output.write_text("mine")
    with pytest.raises(InvalidRequest) as caught:
        qmtranscode.transcode(CLIP, output)
    assert caught.value.code == "output-exists" and output.read_text() == "mine"


def test_wrong_use_of_a_job(output):
    job = Job(CLIP, output, trim=[(0, 1)])
    seen = []

    def misuse(percent):
        if percent == 100:
            return
        for call in (job.run_here, job.close):
            with pytest.raises(InvalidJob):
                call()
        seen.append(percent)

    assert job.run(misuse).status == "complete" and seen
    with pytest.raises(InvalidJob):
        job.run()
    job.close()
    job.close()
    job.cancel()
    with pytest.raises(InvalidJob):
        job.run()


def test_cancel(output):
    job = Job(CLIP, output)
    job.cancel()
    with pytest.raises(JobStopped):
        job.run()
    job = Job(LONG, output, partial="discard")
    with pytest.raises(JobStopped) as caught:
        job.run(lambda percent: percent >= 3 and job.cancel())
    assert caught.value.receipt.status == "nothing written" and not output.exists()


def test_exception_of_the_callback(output):
    def fail(_):
        raise KeyError("mine")

    for isolate in (False, True):
        with pytest.raises(KeyError, match="mine"):
            qmtranscode.transcode(LONG, output, progress=fail, isolate=isolate, partial="discard")
        assert not output.exists()


def test_other_threads_go_on(output):
    ticks = []
    ended = threading.Event()

    def tick():
        while not ended.is_set():
            ticks.append(1)
            time.sleep(0.001)

    thread = threading.Thread(target=tick)
    thread.start()
    qmtranscode.transcode(CLIP, output)
    ended.set()
    thread.join()
    assert len(ticks) > 10


def test_jobs_at_once(tmp_path):
    def run(name, preset):
        qmtranscode.transcode(CLIP, tmp_path / name, trim=[(0, 2)], preset=preset)

    run("a", "ultrafast")
    run("b", "faster")
    threads = [threading.Thread(target=run, args=each) for each in (("c", "ultrafast"), ("d", "faster"))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert (tmp_path / "a").read_bytes() == (tmp_path / "c").read_bytes()
    assert (tmp_path / "b").read_bytes() == (tmp_path / "d").read_bytes()


PROGRAM = """
import sys, qmtranscode
def show(percent):
    if percent >= 3: print("running", flush=True)
try:
    qmtranscode.transcode(sys.argv[1], sys.argv[2], progress=show, partial="discard", isolate=sys.argv[3] == "1")
except KeyboardInterrupt:
    print("interrupted", flush=True)
"""


@pytest.mark.parametrize("isolate", ["0", "1"])
def test_ctrl_c(output, isolate):
    with subprocess.Popen(
        [sys.executable, "-c", PROGRAM, LONG, output, isolate], stdout=subprocess.PIPE, text=True
    ) as process:
        assert process.stdout.readline() == "running\n"
        process.send_signal(signal.SIGINT)
        rest, _ = process.communicate(timeout=30)
        assert rest.endswith("interrupted\n") and process.returncode == 0
    assert not output.exists()


# Ctrl-C in a storm, from before a job to its end. A job that has not ended has no receipt.
STORM = """
import ctypes, os, signal, sys, threading, time, qmtranscode
from qmtranscode._library import OK, library
first, stop = threading.Event(), threading.Event()
def storm():
    while not stop.is_set():
        if armed.is_set():
            os.kill(os.getpid(), signal.SIGINT)
            first.set()
        time.sleep(0.0001)
class Waiting(qmtranscode.Job):
    def run_here(self, progress=None):
        first.wait()  # The job lives through at least one signal.
        return super().run_here(progress)
def interrupted(job):
    try:
        try:
            armed.set()
            job.run(lambda percent: None)
        finally:
            armed.clear()
            ended = library.qmt_job_receipt(job._handle, ctypes.byref(ctypes.c_char_p())) == OK
            time.sleep(0.005)
    except KeyboardInterrupt:
        return ended
armed = threading.Event()
thread = threading.Thread(target=storm)
thread.start()
for _ in range(10):
    job = Waiting(sys.argv[1], sys.argv[2], partial="discard")
    first.clear()
    if not interrupted(job):
        print("a job was left running", flush=True)
        os._exit(1)
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler
    job.close()
stop.set()
thread.join()
print("ended", flush=True)
"""


def run_program(program, *arguments):
    return subprocess.run(
        [sys.executable, "-c", program, *arguments],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30, check=False,
    )


def test_ctrl_c_at_any_moment(output):
    result = run_program(STORM, LONG, output)
    assert (result.stdout, result.returncode) == ("ended\n", 0), result.stderr
    assert not output.exists()


# Other signals with a handler that raises: while a job starts, and while it runs.
ALARM = """
import os, signal, sys, threading, qmtranscode
class Alarm(Exception): pass
def alarm(*_): raise Alarm
signal.signal(signal.SIGALRM, alarm)
start = threading.Thread.start
def interrupted_start(self):
    start(self)
    raise Alarm
for running in (True, False):
    if not running: threading.Thread.start = interrupted_start
    with qmtranscode.Job(sys.argv[1], sys.argv[2], partial="discard") as job:
        try: job.run(lambda percent: running and percent == 1 and os.kill(os.getpid(), signal.SIGALRM))
        except Alarm: print("raised", flush=True)
        else: print("complete", flush=True)
"""


def test_other_signal_handler_that_raises(output):
    result = run_program(ALARM, LONG, output)
    assert (result.stdout, result.returncode) == ("raised\nraised\n", 0), result.stderr
    assert not output.exists()


# The progress function sleeps when the interpreter begins to end, and would return when its thread has no right to go
# on any more. Functions registered first are called last.
EXIT = """
import atexit, os, sys, threading, time
def late():
    try: qmtranscode.transcode(sys.argv[1], sys.argv[2], overwrite=True)
    except qmtranscode.Error as error: print(error.code, flush=True)
atexit.register(late)
import qmtranscode
running = threading.Event()
def show(percent):
    running.set()
    time.sleep(0.1)
class Slow:
    def __del__(self, sleep=time.sleep): sleep(0.3)
sys.slow = Slow()
def work():
    job = qmtranscode.Job(sys.argv[1], sys.argv[2], partial="discard", isolate=sys.argv[3] == "1")
    try: (job.run_here if sys.argv[4] == "here" else job.run)(show)
    except qmtranscode.JobStopped as error: print(error.receipt.status, flush=True)
threading.Thread(target=work, daemon=True).start()
running.wait()
if sys.argv[4] == "fork" and os.fork():
    os.wait()
"""


@pytest.mark.parametrize("isolate, how", [("0", "run"), ("0", "here"), ("1", "run"), ("0", "fork")])
def test_interpreter_that_ends_while_a_job_runs(output, isolate, how):
    result = run_program(EXIT, LONG, output, isolate, how)
    assert result.returncode == 0 and "interpreter-exiting" in result.stdout, result.stderr
    assert os.listdir(output.parent) == [], "the job was stopped, and has cleaned up"


def test_asyncio(output):
    async def both():
        seen = []
        receipt, other = await asyncio.gather(
            qmtranscode.transcode_async(CLIP, output, trim=[(0, 1)], progress=seen.append),
            qmtranscode.transcode_async(CLIP, output.with_name("other.mp4"), trim=[(1, 2)]),
        )
        assert receipt.status == other.status == "complete" and seen[-1] == 100
        with pytest.raises(InvalidRequest):
            await qmtranscode.transcode_async(CLIP, output)

    asyncio.run(both())


def test_asyncio_cancellation_and_exception(output):
    async def cancelled():
        started = asyncio.Event()
        task = asyncio.create_task(
            qmtranscode.transcode_async(LONG, output, partial="discard", progress=lambda _: started.set())
        )
        await started.wait()
        task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task

    asyncio.run(cancelled())

    async def cancelled_often():
        job_threads = set(threading.enumerate())
        task = asyncio.create_task(qmtranscode.transcode_async(LONG, output, partial="discard"))
        for _ in range(5):
            await asyncio.sleep(0)
            task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        assert set(threading.enumerate()) == job_threads, "the job has ended"

    asyncio.run(cancelled_often())

    def fail(_):
        raise KeyError("mine")

    with pytest.raises(KeyError):
        asyncio.run(qmtranscode.transcode_async(LONG, output, partial="discard", progress=fail))
    assert not output.exists()


CLOSED_LOOP = """
import asyncio, os, sys, threading, qmtranscode
for progress in (lambda percent: None, None):
    loop = asyncio.new_event_loop()
    task = loop.create_task(qmtranscode.transcode_async(*sys.argv[1:], partial="discard", progress=progress))
    loop.run_until_complete(asyncio.sleep(0))
    (thread,) = set(threading.enumerate()) - {threading.main_thread()}
    loop.close()
    thread.join()
    assert not progress or not os.path.exists(sys.argv[2]), "the job has been cancelled"
"""


def test_event_loop_that_is_closed(output):
    result = run_program(CLOSED_LOOP, CLIP, output)
    assert result.returncode == 0 and "Traceback" not in result.stderr, result.stderr


def test_version_and_type_marker():
    assert qmtranscode.version() == os.environ["VERSION"]
    assert os.path.exists(os.path.join(os.path.dirname(qmtranscode.__file__), "py.typed"))
    assert json.dumps(dict(qmtranscode.Receipt({"status": "complete"})))
