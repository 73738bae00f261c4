#!/usr/bin/python3
"""Keeps the first two seconds of a media file: transcode.py INPUT OUTPUT. Ctrl-C stops it."""
import sys

import qmtranscode

try:
    receipt = qmtranscode.transcode(
        sys.argv[1], sys.argv[2], trim=[(0, 2)], progress=lambda percent: print(f"\r{percent} %", end="", file=sys.stderr)
    )
except qmtranscode.Error as error:
    sys.exit(f"{error} ({error.code})")
print(f"\n{receipt.output}: {receipt.seconds} s, {receipt['bytes']} bytes")
