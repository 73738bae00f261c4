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


@pytest.mark.parametrize(
    "options, text",
    [
        ({"trim": [(2, 3), (0, 1)]}, "--trim 0-1"),
        ({"fit": (1, 2, 3)}, "width"),
        ({"fitt": 1}, "unknown option"),
        ({"fps": object()}, "JSON"),
        ({"fps": float("nan")}, "JSON"),
        ({"volume": 3, "loudness": -16}, "cannot be combined"),
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

    def fail(_):
        raise KeyError("mine")

    with pytest.raises(KeyError):
        asyncio.run(qmtranscode.transcode_async(LONG, output, partial="discard", progress=fail))
    assert not output.exists()


def test_version_and_type_marker():
    assert qmtranscode.version() == os.environ["VERSION"]
    assert os.path.exists(os.path.join(os.path.dirname(qmtranscode.__file__), "py.typed"))
    assert json.dumps(dict(qmtranscode.Receipt({"status": "complete"})))
