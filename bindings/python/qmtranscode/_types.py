"""Receipts and errors."""

from __future__ import annotations

from typing import Any, Callable, List, Mapping, Optional

Progress = Callable[[int], object]
"""Told of the progress in percent, on threads of the library or the job's thread, never two at a time; 100 comes once,
when the output is complete. It must not block for long. An exception cancels the job and is raised where the job was
started; at 100 it is raised although the output is complete."""


class Receipt(Mapping[str, Any]):
    """The object that `qmtranscode --json` prints for a run, as a mapping. Its common members are attributes."""

    def __init__(self, members: Mapping[str, Any]) -> None:
        self._members = dict(members)

    def __getitem__(self, key: str) -> Any:
        return self._members[key]

    def __iter__(self):  # type: ignore[no-untyped-def]
        return iter(self._members)

    def __len__(self) -> int:
        return len(self._members)

    def __repr__(self) -> str:
        return f"Receipt({self._members!r})"

    @property
    def status(self) -> str:
        """"complete", "stopped" with a shorter file, "nothing written", "failed" or "planned"; "already" if the output
        of `if_missing` was there, "kept" if the input met `if_needed` and the output is a copy of it."""
        return str(self._members["status"])

    @property
    def warnings(self) -> List[str]:
        return list(self._members.get("warnings", []))

    @property
    def output(self) -> Optional[str]:
        """The path of the output."""
        return self._members.get("output")

    @property
    def seconds(self) -> Optional[float]:
        """The length of the output that is valid."""
        return self._members.get("valid_up_to")

    @property
    def tracks(self) -> List[Mapping[str, Any]]:
        """What is known of each track of the output: "kind", "codec", "frames" and more."""
        return list(self._members.get("tracks", []))


class Error(Exception):
    """A job that has not made a complete output. `code` is for programs, such as "output-exists" or "ENOSPC"; `receipt`
    is None where there is none."""

    def __init__(self, text: str, code: str = "", receipt: Optional[Receipt] = None) -> None:
        super().__init__(text)
        self.code = code
        self.receipt = receipt

    @property
    def retryable(self) -> bool:
        """Whether another try may succeed with the same request."""
        error = self.receipt.get("error") if self.receipt is not None else None
        return bool(error and error["retryable"])


class InvalidRequest(Error, ValueError):
    """The request cannot be carried out as it is written, whatever the input."""


class UnusableInput(Error):
    """This input, or this request for this input, can never work."""


class JobFailed(Error):
    """An I/O error, exhausted resources, or, with isolate=True, a crash."""


class JobStopped(Error):
    """The job was cancelled. `receipt` says whether there is a shorter file."""


class InvalidJob(Error, RuntimeError):
    """A job that runs or has run, or was closed; also a lack of memory for a call of the library."""
