"""Transcodes media files into MPEG-4 files.

>>> import qmtranscode
>>> receipt = qmtranscode.transcode("in.mov", "out.mp4", trim=[(0, 2.5)], fit=(1280, 720))
>>> receipt.status
'complete'

Ctrl-C cancels a job, and KeyboardInterrupt is raised when the job has ended, however often Ctrl-C is pressed: the
main thread waits for a thread that runs the job, and keeps back what the handler of SIGINT raises meanwhile. Other
threads of the interpreter go on. When the interpreter exits, it cancels the jobs that other threads run, and waits for
their end; later ones are refused.

`transcode_async` is the same for asyncio, and `Job` is for those who want to cancel a job themselves. Nothing but the
standard library and libqmtranscode.so.0 is needed.

The rules of `qmtranscode.h` for threads and for the process apply here as well. `isolate=True` runs a job in a program
of its own, so that a crash there is a `JobFailed`.
"""

from ._job import Job, configure_process, transcode, transcode_async, version
from ._types import (
    Error,
    InvalidJob,
    InvalidRequest,
    JobFailed,
    JobStopped,
    Progress,
    Receipt,
    UnusableInput,
)

__all__ = [
    "Error",
    "InvalidJob",
    "InvalidRequest",
    "Job",
    "JobFailed",
    "JobStopped",
    "Progress",
    "Receipt",
    "UnusableInput",
    "configure_process",
    "transcode",
    "transcode_async",
    "version",
]
__version__ = version()
