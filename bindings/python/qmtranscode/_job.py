"""Jobs."""

from __future__ import annotations

import asyncio
import atexit
import ctypes
import json
import os
import signal
import threading
from typing import Any, Callable, Dict, Optional, Sequence, Tuple, Type, Union

from ._library import FAILED, OK, PROGRESS, STOPPED, UNUSABLE, USAGE, library
from ._types import Error, InvalidJob, InvalidRequest, JobFailed, JobStopped, Progress, Receipt, UnusableInput

Path = Union[str, "os.PathLike[str]"]
Period = Tuple[float, Optional[float]]
Size = Tuple[int, int]

_CLASSES: Dict[int, Type[Error]] = {
    FAILED: JobFailed,
    USAGE: InvalidRequest,
    UNUSABLE: UnusableInput,
    STOPPED: JobStopped,
}


def version() -> str:
    """The version of the library."""
    return str(library.qmt_version().decode())


def configure_process(*, limit_allocations: bool = False, quiet: bool = False) -> None:
    """Settings of other libraries that they have for the whole process only; before the first job, and optional.

    `limit_allocations` limits each allocation of FFmpeg's libraries to 256 MiB, because a few bytes of a file can ask
    for any amount. `quiet` keeps warnings of these libraries from standard error. isolate=True needs neither.
    """
    library.qmt_configure_process((1 if limit_allocations else 0) | (2 if quiet else 0))


def _error(status: int, receipt: Optional[Receipt] = None) -> Error:
    """For the last call of this thread, which has returned `status`."""
    text = library.qmt_error_text().decode(errors="replace")
    code = library.qmt_error_code().decode(errors="replace")
    return _CLASSES.get(status, InvalidJob)(text or "not enough memory", code, receipt)


class _Running:
    """The jobs that run. None may when the interpreter ends, because it ends the threads that call back then: a forced
    unwind through the library, which aborts the process."""

    def __init__(self) -> None:
        self.exiting = False
        self.forget()
        os.register_at_fork(after_in_child=self.forget)
        atexit.register(self.cancel_all)

    def forget(self) -> None:
        # The threads that run these jobs, and that may hold the lock, do not exist in a child process.
        self._jobs: Dict[object, Job] = {}
        self._changed = threading.Condition()

    def add(self, key: object, job: Job) -> None:
        with self._changed:
            if self.exiting:
                raise Error("the interpreter is exiting, and a job cannot run any more", "interpreter-exiting")
            self._jobs[key] = job

    def remove(self, key: object) -> None:
        with self._changed:
            self._jobs.pop(key, None)
            self._changed.notify_all()

    def cancel_all(self) -> None:
        with _Interrupts(lambda: None) as interrupts, self._changed:
            self.exiting = True
            for job in self._jobs.values():
                job.cancel()
            while self._jobs:
                self._changed.wait()
            interrupts.ended.set()


class _Interrupts:
    """In the main thread: when the handler of SIGINT raises an exception in a `with` block, calls `cancel`, and raises
    the exception at the end of the block. Raised between two lines of the block, it would leave a job running.

    Exceptions of other signal handlers go to `keep` where they can be caught. `ended` is set in the block, when the
    job has ended.
    """

    def __init__(self, cancel: Callable[[], None]) -> None:
        self.ended = threading.Event()
        self._cancel = cancel
        self._handler = signal.getsignal(signal.SIGINT)
        self._kept: Optional[BaseException] = None

    def __enter__(self) -> _Interrupts:
        try:
            if callable(self._handler):
                signal.signal(signal.SIGINT, self._handle)
        except ValueError:
            pass  # Not the main thread.
        return self

    def __exit__(self, *_: object) -> None:
        self._restore()
        if self._kept is not None:
            raise self._kept from None

    def keep(self, error: BaseException) -> None:
        self._kept = self._kept or error
        self._cancel()

    def _handle(self, number: int, frame: Any) -> None:
        try:
            assert callable(self._handler)
            self._handler(number, frame)
        except BaseException as error:  # pylint: disable=broad-except
            if self.ended.is_set():
                # __exit__ may never come, because the handler of another signal has raised an exception just before.
                self._restore()
                raise
            self.keep(error)

    def _restore(self) -> None:
        if signal.getsignal(signal.SIGINT) == self._handle:
            signal.signal(signal.SIGINT, self._handler)


class Job:
    """One job. `run` once; `cancel` from any thread; `close`, or the end of a `with` block, frees it.

    Keywords are the options of the command qmtranscode(1) with underscores for hyphens: `video_bitrate="4M"`. A value
    is text as the command takes it, a number, a path, True for an option without a value, (width, height) for `fit` and
    `size`, and a list of (start, end) in seconds for `trim` and `cut`, where an end of None is the end of the input.
    None and False leave an option out. `output` is None for a job with `split`, which names the outputs.

    Relative paths are resolved when the job runs, not here.
    """

    def __init__(
        self, input: Path, output: Optional[Path] = None, *, isolate: Optional[bool] = False, **options: Any
    ) -> None:
        if output is not None and options.get("split") is not None:
            raise InvalidRequest("split takes the place of output; give one of them", "invalid-request")
        options.update(input=os.fspath(input), output=output, isolate=isolate)
        request = {
            name.replace("_", "-"): os.fspath(value) if isinstance(value, os.PathLike) else value
            for name, value in options.items()
            if value is not None
        }
        try:
            text = json.dumps(request, allow_nan=False, ensure_ascii=False).encode()
        except UnicodeEncodeError:
            reason = "a name that is not UTF-8 cannot be used; rename or link the file"
            raise InvalidRequest(reason, "invalid-request") from None
        except (TypeError, ValueError) as error:
            raise InvalidRequest(f"the request cannot be written as JSON: {error}", "invalid-request") from None
        self._handle = ctypes.c_uint64()
        status = library.qmt_job_new(text, ctypes.byref(self._handle))
        if status != OK:
            raise _error(status)

    def __enter__(self) -> "Job":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_handle"):
            library.qmt_job_free(self._handle)

    def close(self) -> None:
        """Frees the job. InvalidJob while it runs; a second call has no effect."""
        status = library.qmt_job_free(self._handle)
        if status != OK and library.qmt_error_code() == b"busy":
            raise _error(status)

    def cancel(self) -> None:
        """Makes `run` raise JobStopped soon; before it, at once. Any thread."""
        library.qmt_job_cancel(self._handle)

    def run_here(self, progress: Optional[Progress] = None) -> Receipt:
        """Runs the job on this thread, and blocks until it has ended. Signals are handled only then."""
        raised: list[BaseException] = []

        def call(_: object, percent: int) -> None:
            if raised:
                return
            try:
                assert progress is not None
                progress(percent)
            except BaseException as error:  # pylint: disable=broad-except
                raised.append(error)
                self.cancel()

        function = ctypes.cast(0, PROGRESS) if progress is None else PROGRESS(call)
        key = object()
        with _Interrupts(self.cancel) as interrupts:
            try:
                _running.add(key, self)
                status = library.qmt_job_run(self._handle, function, None)
            finally:
                _running.remove(key)
                interrupts.ended.set()
        receipt = self._receipt() if status >= 0 else None
        if raised:
            raise raised[0]
        if status != OK:
            raise _error(status, receipt)
        assert receipt is not None
        return receipt

    def run(self, progress: Optional[Progress] = None) -> Receipt:
        """Runs the job, and waits for its end. Ctrl-C cancels it: KeyboardInterrupt is raised when the job has ended,
        however often Ctrl-C is pressed. So is what the handler of another signal raises.

        An exception of `progress` cancels the job and is raised; at 100 % it is raised although the output is complete.
        """
        if _running.exiting or threading.current_thread() is not threading.main_thread():
            return self.run_here(progress)
        # Signal handlers run in the main thread only, and not while it is in the library.
        outcome: Dict[str, Any] = {}
        claim = threading.Lock()

        def work() -> None:
            if not claim.acquire(blocking=False):
                return
            try:
                outcome["receipt"] = self.run_here(progress)
            except BaseException as error:  # pylint: disable=broad-except
                outcome["error"] = error
            interrupts.ended.set()

        with _Interrupts(self.cancel) as interrupts:
            try:
                threading.Thread(target=work, name="qmtranscode", daemon=True).start()
            except BaseException as error:  # pylint: disable=broad-except
                if claim.acquire(blocking=False):
                    # There is no thread, or it has not begun and now never will.
                    interrupts.ended.set()
                    raise
                interrupts.keep(error)
            while not interrupts.ended.is_set():
                try:
                    interrupts.ended.wait()
                except BaseException as error:  # pylint: disable=broad-except
                    interrupts.keep(error)
        if "error" in outcome:
            raise outcome["error"]
        return outcome["receipt"]  # type: ignore[no-any-return]

    def _receipt(self) -> Receipt:
        text = ctypes.c_char_p()
        status = library.qmt_job_receipt(self._handle, ctypes.byref(text))
        if status != OK:
            raise _error(status)
        assert text.value is not None
        return Receipt(json.loads(text.value))


_running = _Running()


def transcode(
    input: Path,
    output: Optional[Path] = None,
    *,
    trim: Optional[Sequence[Period]] = None,
    cut: Optional[Sequence[Period]] = None,
    fit: Optional[Size] = None,
    size: Optional[Size] = None,
    split: Optional[Path] = None,
    overwrite: Optional[bool] = False,
    isolate: Optional[bool] = False,
    progress: Optional[Progress] = None,
    **options: Any,
) -> Receipt:
    """Transcodes `input` into `output`, and returns the receipt of the complete file.

    `trim` keeps periods and `cut` removes them: (start, end) in seconds, in time order and without overlap. `fit` is
    the box that the frames fit into, and `size` their exact size, (width, height) in pixels. `split` makes a file of
    each period, named by it ("part-%02d.mp4"); it takes the place of `output` and needs `isolate`. `overwrite` replaces
    an existing output. `isolate` runs the job in a program of its own. Further options are those of `Job`.

    `progress` is called on threads of the library or the job's thread, never two at a time.

    Raises InvalidRequest, UnusableInput, JobFailed or JobStopped, which have the receipt; KeyboardInterrupt on Ctrl-C,
    after the job has ended; and what `progress` raises, at 100 % although the file is complete. Error while the
    interpreter exits.
    """
    options.update(trim=trim, cut=cut, fit=fit, size=size, split=split, overwrite=overwrite)
    with Job(input, output, isolate=isolate, **options) as job:
        return job.run(progress)


async def transcode_async(
    input: Path,
    output: Optional[Path] = None,
    *,
    trim: Optional[Sequence[Period]] = None,
    cut: Optional[Sequence[Period]] = None,
    fit: Optional[Size] = None,
    size: Optional[Size] = None,
    split: Optional[Path] = None,
    overwrite: Optional[bool] = False,
    isolate: Optional[bool] = False,
    progress: Optional[Progress] = None,
    **options: Any,
) -> Receipt:
    """As `transcode`, for asyncio: `progress` is called on the event loop. The cancellation of the task, however often,
    cancels the job and waits for its end. A job whose event loop is closed is cancelled."""
    options.update(trim=trim, cut=cut, fit=fit, size=size, split=split, overwrite=overwrite)
    job = Job(input, output, isolate=isolate, **options)
    loop = asyncio.get_running_loop()
    ended: asyncio.Future[Union[Receipt, BaseException]] = loop.create_future()
    raised: list[BaseException] = []
    interrupt: Optional[BaseException] = None

    def post(function: Callable[..., object], argument: object) -> None:
        try:
            loop.call_soon_threadsafe(function, argument)
        except RuntimeError:
            job.cancel()  # The loop has been closed.

    def show(percent: int) -> None:
        if raised:
            return
        try:
            assert progress is not None
            progress(percent)
        except Exception as error:  # pylint: disable=broad-except
            raised.append(error)
            job.cancel()

    def forward(percent: int) -> None:
        post(show, percent)

    def work() -> None:
        try:
            outcome: Union[Receipt, BaseException] = job.run_here(forward if progress else None)
        except BaseException as error:  # pylint: disable=broad-except
            outcome = error
        post(ended.set_result, outcome)

    thread = threading.Thread(target=work, name="qmtranscode", daemon=True)
    try:
        thread.start()
        while not ended.done():
            try:
                await asyncio.wait([ended])
            except (asyncio.CancelledError, KeyboardInterrupt) as error:
                interrupt = interrupt or error
                job.cancel()
    except BaseException:
        # No thread, or a coroutine that is closed, which cannot wait.
        job.cancel()
        raise
    thread.join()  # It ends now.
    result = ended.result()
    if interrupt is not None:
        raise interrupt
    if raised:
        raise raised[0]
    if isinstance(result, BaseException):
        raise result
    return result
