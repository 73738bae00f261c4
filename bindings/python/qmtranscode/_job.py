"""Jobs."""

from __future__ import annotations

import asyncio
import ctypes
import json
import os
import threading
from typing import Any, Dict, Optional, Sequence, Tuple, Type, Union

from ._library import OK, PROGRESS, STOPPED, UNUSABLE, USAGE, library
from ._types import Error, InvalidJob, InvalidRequest, JobFailed, JobStopped, Progress, Receipt, UnusableInput

Path = Union[str, "os.PathLike[str]"]
Period = Tuple[float, Optional[float]]
Size = Tuple[int, int]

_CLASSES: Dict[int, Type[Error]] = {USAGE: InvalidRequest, UNUSABLE: UnusableInput, STOPPED: JobStopped, 1: JobFailed}


def version() -> str:
    """The version of the library."""
    return str(library.qmt_version().decode())


def configure_process(*, limit_allocations: bool = False, quiet: bool = False) -> None:
    """Settings of other libraries that they have for the whole process only; before the first job, and optional.

    `limit_allocations` limits each allocation of FFmpeg's libraries to 256 MiB, because a few bytes of a file can ask for
    any amount. `quiet` keeps warnings of these libraries from standard error. isolate=True needs neither.
    """
    library.qmt_configure_process((1 if limit_allocations else 0) | (2 if quiet else 0))


def _error(status: int, receipt: Optional[Receipt] = None) -> Error:
    """For the last call of this thread, which has returned `status`."""
    text = library.qmt_error_text().decode(errors="replace")
    code = library.qmt_error_code().decode(errors="replace")
    return _CLASSES.get(status, InvalidJob)(text or "not enough memory", code, receipt)


class Job:
    """One job. `run` once; `cancel` from any thread; `close`, or the end of a `with` block, frees it.

    Keywords are the options of the command qmtranscode(1) with underscores for hyphens: `video_bitrate="4M"`. A value is
    text as the command takes it, a number, True for an option without a value, (width, height) for `fit` and `size`, and
    a list of (start, end) in seconds for `trim` and `cut`, where an end of None is the end of the input. None and False
    leave an option out.
    """

    def __init__(self, input: Path, output: Path, *, isolate: bool = False, **options: Any) -> None:
        request = {name.replace("_", "-"): value for name, value in options.items()}
        request.update(input=os.fspath(input), output=os.fspath(output), isolate=isolate)
        try:
            text = json.dumps(request, allow_nan=False).encode()
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
        status = library.qmt_job_run(self._handle, function, None)
        receipt = self._receipt() if status >= 0 else None
        if raised:
            raise raised[0]
        if status != OK:
            raise _error(status, receipt)
        assert receipt is not None
        return receipt

    def run(self, progress: Optional[Progress] = None) -> Receipt:
        """Runs the job in a thread of its own, and waits for its end. Ctrl-C cancels the job."""
        outcome: Dict[str, Any] = {}
        ended = threading.Event()

        def work() -> None:
            try:
                outcome["receipt"] = self.run_here(progress)
            except BaseException as error:  # pylint: disable=broad-except
                outcome["error"] = error
            ended.set()

        threading.Thread(target=work, name="qmtranscode", daemon=True).start()
        interrupt: Optional[BaseException] = None
        while not ended.is_set():
            try:
                ended.wait()
            except BaseException as error:  # pylint: disable=broad-except
                # KeyboardInterrupt, or what another signal handler raises.
                interrupt = interrupt or error
                self.cancel()
        if interrupt is not None:
            raise interrupt
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


def transcode(
    input: Path,
    output: Path,
    *,
    trim: Optional[Sequence[Period]] = None,
    cut: Optional[Sequence[Period]] = None,
    fit: Optional[Size] = None,
    size: Optional[Size] = None,
    overwrite: bool = False,
    isolate: bool = False,
    progress: Optional[Progress] = None,
    **options: Any,
) -> Receipt:
    """Transcodes `input` into `output`, and returns the receipt of the complete file.

    `trim` keeps periods and `cut` removes them: (start, end) in seconds, in time order and without overlap. `fit` is the
    box that the frames fit into, and `size` their exact size, (width, height) in pixels. `overwrite` replaces an
    existing output. `isolate` runs the job in a program of its own. Further options are those of `Job`.

    Raises InvalidRequest, UnusableInput, JobFailed or JobStopped, which have the receipt; KeyboardInterrupt on Ctrl-C,
    after the job has ended; and what `progress` raises.
    """
    options.update(trim=trim, cut=cut, fit=fit, size=size, overwrite=overwrite)
    with Job(input, output, isolate=isolate, **options) as job:
        return job.run(progress)


async def transcode_async(
    input: Path, output: Path, *, isolate: bool = False, progress: Optional[Progress] = None, **options: Any
) -> Receipt:
    """As `transcode`, for asyncio: `progress` is called on the event loop, and the cancellation of the task cancels the
    job and waits for its end."""
    loop = asyncio.get_running_loop()
    job = Job(input, output, isolate=isolate, **options)
    ended: asyncio.Future[Receipt] = loop.create_future()
    raised: list[BaseException] = []

    def finish(receipt: Optional[Receipt], error: Optional[BaseException]) -> None:
        if ended.done():
            return
        if error is not None:
            ended.set_exception(error)
        elif receipt is not None:
            ended.set_result(receipt)

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
        loop.call_soon_threadsafe(show, percent)

    def work() -> None:
        receipt: Optional[Receipt] = None
        error: Optional[BaseException] = None
        try:
            receipt = job.run_here(forward if progress else None)
        except BaseException as caught:  # pylint: disable=broad-except
            error = caught
        loop.call_soon_threadsafe(finish, receipt, error)

    threading.Thread(target=work, name="qmtranscode", daemon=True).start()
    try:
        receipt = await asyncio.shield(ended)
    except asyncio.CancelledError:
        job.cancel()
        await asyncio.wait([ended])
        ended.exception()
        raise
    except Error:
        if raised:
            raise raised[0] from None
        raise
    if raised:
        raise raised[0]
    return receipt
