"""libqmtranscode.so.0, as qmtranscode.h declares it."""

from __future__ import annotations

import ctypes
import os

OK = 0
FAILED = 1
USAGE = 2
UNUSABLE = 3
STOPPED = 130

PROGRESS = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int32)


def _load() -> ctypes.CDLL:
    # Set by tests and by programs that bring a library of their own.
    library = ctypes.CDLL(os.environ.get("QMTRANSCODE_LIBRARY", "libqmtranscode.so.0"))
    handle, pointer = ctypes.c_uint64, ctypes.c_void_p
    declarations = {
        "qmt_version": (ctypes.c_char_p, []),
        "qmt_configure_process": (ctypes.c_int, [ctypes.c_uint32]),
        "qmt_job_new": (ctypes.c_int, [ctypes.c_char_p, ctypes.POINTER(handle)]),
        "qmt_job_run": (ctypes.c_int, [handle, PROGRESS, pointer]),
        "qmt_job_cancel": (ctypes.c_int, [handle]),
        "qmt_job_receipt": (ctypes.c_int, [handle, ctypes.POINTER(ctypes.c_char_p)]),
        "qmt_job_free": (ctypes.c_int, [handle]),
        "qmt_error_text": (ctypes.c_char_p, []),
        "qmt_error_code": (ctypes.c_char_p, []),
    }
    for name, (result, parameters) in declarations.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = parameters
    return library


library = _load()
